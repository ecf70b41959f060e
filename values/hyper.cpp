// Hypercomplex arithmetic, functions and text form.
//
// Every hypercomplex number q = a + v (a real, v the vector part with length
// t) lies in the complex plane spanned by 1 and u = v/t, so each function f
// is taken as f(a + i t) with i replaced by u: EXP(q) = e^a (cos t + u sin t),
// LOG(q) = ln|q| + u atan2(t, a), and so on. These are the principal values;
// for kind 2 they are the ordinary complex functions.
#include "values/hyper.h"

#include <cstring>

#include "core/errors.h"
#include "values/mathlib.h"
#include "values/numtext.h"

namespace values {

namespace {

bool fail(const char* m) {
  core::raise(m);
  return false;
}

bool finite(const Hyper& h) {
  for (double c : h.c)
    if (c - c != 0) return false;
  return true;
}

bool result(const Hyper& h, Value* out) {
  if (!finite(h)) return fail("Overflow");
  out->type = kHyper;
  out->h = h;
  return true;
}

// Cayley-Dickson on n components: (a,b)(c,d) = (ac - conj(d)b, da + b conj(c)).
void mul_n(const double* x, const double* y, double* out, int n) {
  if (n == 1) {
    out[0] = x[0] * y[0];
    return;
  }
  const int h = n / 2;
  const double *a = x, *b = x + h, *c = y, *d = y + h;
  double cd[4], cc[4], t1[4], t2[4];
  cd[0] = d[0];
  cc[0] = c[0];
  for (int i = 1; i < h; ++i) {
    cd[i] = -d[i];
    cc[i] = -c[i];
  }
  mul_n(a, c, t1, h);
  mul_n(cd, b, t2, h);
  for (int i = 0; i < h; ++i) out[i] = t1[i] - t2[i];
  mul_n(d, a, t1, h);
  mul_n(b, cc, t2, h);
  for (int i = 0; i < h; ++i) out[h + i] = t1[i] + t2[i];
}

// Split q into its real part a, vector length t and unit vector u.
void split(const Hyper& q, double* a, double* t, Hyper* u) {
  *a = q.c[0];
  double s = 0;
  for (int i = 1; i < 8; ++i) s += q.c[i] * q.c[i];
  double len;
  (void)m_sqr(s, &len);
  *t = len;
  *u = Hyper{};
  u->kind = hyper_kind(q);
  if (len > 0) {
    for (int i = 1; i < 8; ++i) u->c[i] = q.c[i] / len;
  } else {
    u->c[1] = 1;  // a real argument: results off the real axis lie along i
  }
}

// re + u * im, in the kind of u.
Hyper combine(double re, double im, const Hyper& u) {
  Hyper r{};
  r.kind = u.kind;
  r.c[0] = re;
  for (int i = 1; i < 8; ++i) r.c[i] = u.c[i] * im;
  return r;
}

}  // namespace

bool to_hyper(const Value& v, Hyper* out) {
  *out = Hyper{};
  if (v.type == kHyper) {
    *out = v.h;
    out->kind = hyper_kind(v.h);
    return true;
  }
  if (!is_numeric_type(v.type)) return false;
  out->kind = 2;
  out->c[0] = is_integer_type(v.type) ? static_cast<double>(v.i) : v.d;
  return true;
}

void hyper_multiply(const Hyper& x, const Hyper& y, Hyper* out) {
  const std::uint64_t n = hyper_kind(x) > hyper_kind(y) ? hyper_kind(x) : hyper_kind(y);
  Hyper r{};
  r.kind = n;
  mul_n(x.c, y.c, r.c, static_cast<int>(n));
  *out = r;
}

Hyper hyper_conj(const Hyper& x) {
  Hyper r = x;
  r.kind = hyper_kind(x);
  for (std::uint64_t i = 1; i < r.kind; ++i) r.c[i] = -r.c[i];
  return r;
}

double hyper_norm2(const Hyper& x) {
  double s = 0;
  for (double c : x.c) s += c * c;
  return s;
}

bool hyper_inverse(const Hyper& x, Hyper* out) {
  const double n2 = hyper_norm2(x);
  if (n2 == 0) return fail("Division by zero");
  Hyper r = hyper_conj(x);
  for (double& c : r.c) c /= n2;
  if (!finite(r)) return fail("Overflow");
  *out = r;
  return true;
}

bool hyper_negate(const Value& a, Value* out) {
  Hyper r = a.h;
  r.kind = hyper_kind(a.h);
  for (std::uint64_t i = 0; i < r.kind; ++i) r.c[i] = -r.c[i];
  out->type = kHyper;
  out->h = r;
  return true;
}

bool hyper_binary(Op op, const Value& a, const Value& b, Value* out) {
  Hyper x, y;
  if (!to_hyper(a, &x) || !to_hyper(b, &y)) return fail("Type mismatch");
  const std::uint64_t n = x.kind > y.kind ? x.kind : y.kind;
  Hyper r{};
  r.kind = n;
  switch (op) {
    case Op::Add:
    case Op::Sub:
      for (int i = 0; i < 8; ++i) r.c[i] = op == Op::Add ? x.c[i] + y.c[i] : x.c[i] - y.c[i];
      return result(r, out);
    case Op::Mul:
      hyper_multiply(x, y, &r);
      return result(r, out);
    case Op::Div: {
      Hyper inv;
      if (!hyper_inverse(y, &inv)) return false;
      hyper_multiply(x, inv, &r);
      return result(r, out);
    }
    case Op::Pow: {
      if (b.type == kHyper) return fail("Type mismatch");  // the exponent is a real scalar
      double e = is_integer_type(b.type) ? static_cast<double>(b.i) : b.d;
      if (!hyper_power(x, e, &r)) return false;
      return result(r, out);
    }
    case Op::Eq:
    case Op::Ne: {
      bool same = true;
      for (int i = 0; i < 8; ++i)
        if (!(x.c[i] == y.c[i])) same = false;
      *out = Value::integer((op == Op::Eq) == same ? -1 : 0);
      return true;
    }
    case Op::Lt:
    case Op::Le:
    case Op::Gt:
    case Op::Ge:
      return fail("Illegal comparison");
    default:
      return fail("Type mismatch");
  }
}

int component_index(const char* name) {
  if (!std::strcmp(name, "R")) return 0;
  if (!std::strcmp(name, "I") || !std::strcmp(name, "E1")) return 1;
  if (!std::strcmp(name, "J") || !std::strcmp(name, "E2")) return 2;
  if (!std::strcmp(name, "K") || !std::strcmp(name, "E3")) return 3;
  if (name[0] == 'E' && name[1] >= '4' && name[1] <= '7' && name[2] == 0) return name[1] - '0';
  return -1;
}

bool hyper_power(const Hyper& x, double r, Hyper* out) {
  // Whole exponents multiply, as the real power does, so that CPLX(0,1)^2 is -1 exactly.
  if (r == static_cast<double>(static_cast<std::int64_t>(r)) && r >= -65536 && r <= 65536 && hyper_norm2(x) != 0) {
    Hyper acc{}, base = x;
    acc.kind = hyper_kind(x);
    acc.c[0] = 1;
    base.kind = acc.kind;
    for (std::int64_t n = r < 0 ? -static_cast<std::int64_t>(r) : static_cast<std::int64_t>(r); n; n >>= 1) {
      if (n & 1) hyper_multiply(acc, base, &acc);
      hyper_multiply(base, base, &base);
    }
    if (r < 0) return hyper_inverse(acc, out);
    *out = acc;
    return true;
  }
  if (hyper_norm2(x) == 0) {
    if (r > 0) {
      *out = Hyper{};
      out->kind = x.kind;
      return true;
    }
    if (r == 0) {
      *out = Hyper{};
      out->kind = x.kind;
      out->c[0] = 1;
      return true;
    }
    return fail("Division by zero");
  }
  Hyper l;
  if (!hyper_function("LOG", x, &l)) return false;
  for (double& c : l.c) c *= r;
  return hyper_function("EXP", l, out);
}

bool hyper_function(const char* fn, const Hyper& x, Hyper* out) {
  double a, t;
  Hyper u;
  split(x, &a, &t, &u);
  double re = 0, im = 0;
  auto sc = [](double v, double* s, double* c) {
    if (!sincos_raw(v, s, c)) return fail("Overflow");
    return true;
  };
  double s, c;
  if (!std::strcmp(fn, "EXP")) {
    if (a > 709.78) return fail("Overflow");
    const double e = exp_raw(a);
    if (!sc(t, &s, &c)) return false;
    re = e * c;
    im = e * s;
  } else if (!std::strcmp(fn, "LOG")) {
    const double n2 = a * a + t * t;
    if (n2 == 0) return fail("Illegal function call");
    re = 0.5 * log_raw(n2);
    im = atan2_own(t, a);
  } else if (!std::strcmp(fn, "SQR")) {
    if (a == 0 && t == 0) {
      re = im = 0;
    } else {
      // sqrt(a + i t) = p + i t/(2p) with p = sqrt((|q| + a) / 2), stable for a < 0.
      double mod, p;
      (void)m_sqr(a * a + t * t, &mod);
      if (a >= 0) {
        (void)m_sqr((mod + a) / 2, &p);
        re = p;
        im = t / (2 * p);
      } else {
        (void)m_sqr((mod - a) / 2, &p);
        re = t / (2 * p);
        im = p;
        if (t == 0) re = 0;
      }
    }
  } else if (!std::strcmp(fn, "SIN") || !std::strcmp(fn, "COS") || !std::strcmp(fn, "TAN")) {
    if (t > 709.78) return fail("Overflow");
    if (!sc(a, &s, &c)) return false;
    const double ch = cosh_raw(t), sh = sinh_raw(t);
    if (fn[0] == 'S') {
      re = s * ch;
      im = c * sh;
    } else if (fn[0] == 'C') {
      re = c * ch;
      im = -s * sh;
    } else {
      // tan(a + i t) = (sin 2a + i sinh 2t) / (cos 2a + cosh 2t)
      double s2, c2;
      if (!sc(2 * a, &s2, &c2)) return false;
      if (2 * t > 709.78) {
        re = 0;
        im = 1;
      } else {
        const double den = c2 + cosh_raw(2 * t);
        if (den == 0) return fail("Overflow");
        re = s2 / den;
        im = sinh_raw(2 * t) / den;
      }
    }
  } else if (!std::strcmp(fn, "SINH") || !std::strcmp(fn, "COSH") || !std::strcmp(fn, "TANH")) {
    if (a > 709.78 || a < -709.78) {
      if (!std::strcmp(fn, "TANH")) {
        re = a > 0 ? 1 : -1;
        im = 0;
        *out = combine(re, im, u);
        return true;
      }
      return fail("Overflow");
    }
    if (!sc(t, &s, &c)) return false;
    const double ch = cosh_raw(a), sh = sinh_raw(a);
    if (fn[0] == 'S') {
      re = sh * c;
      im = ch * s;
    } else if (fn[0] == 'C') {
      re = ch * c;
      im = sh * s;
    } else {
      // tanh(a + i t) = (sinh 2a + i sin 2t) / (cosh 2a + cos 2t)
      double s2, c2;
      if (!sc(2 * t, &s2, &c2)) return false;
      if (2 * a > 709.78 || 2 * a < -709.78) {
        re = a > 0 ? 1 : -1;
        im = 0;
      } else {
        const double den = cosh_raw(2 * a) + c2;
        if (den == 0) return fail("Overflow");
        re = sinh_raw(2 * a) / den;
        im = s2 / den;
      }
    }
  } else {
    return fail("Type mismatch");
  }
  *out = combine(re, im, u);
  if (!finite(*out)) return fail("Overflow");
  return true;
}

std::uint32_t hyper_to_text(const Hyper& h, char* out, bool sign_position) {
  static const char* const kUnits4[4] = {"", "i", "j", "k"};
  const std::uint64_t kind = hyper_kind(h);
  std::uint32_t n = 0;
  for (std::uint64_t i = 0; i < kind; ++i) {
    const double v = h.c[i];
    const bool negative = v < 0;  // negative zero is written with "+"
    if (i == 0) {
      if (negative) out[n++] = '-';
      else if (sign_position) out[n++] = ' ';
    } else {
      out[n++] = negative ? '-' : '+';
    }
    n += static_cast<std::uint32_t>(number_text(negative ? -v : v, 15, 'D', out + n));
    if (i > 0) {
      if (kind == 8) {
        out[n++] = 'e';
        out[n++] = static_cast<char>('0' + i);
      } else {
        const char* unit = kind == 2 ? "i" : kUnits4[i];
        while (*unit) out[n++] = *unit++;
      }
    }
  }
  return n;
}

}  // namespace values
