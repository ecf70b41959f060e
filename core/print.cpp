// PRINT, PRINT USING and WRITE over an output sink (console or file).
#include "core/print.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/errors.h"
#include "core/keywords.h"
#include "core/statements.h"
#include "screen/console.h"
#include "values/eval.h"
#include "values/numtext.h"
#include "values/ops.h"
#include "values/store.h"

namespace core {

namespace {

constexpr std::uint32_t kZoneWidth = 14;

std::uint32_t console_column(void*) {
  if (screen::con.capture_mode) return screen::con.capture_col;  // CAPTURE: the captured line's column
  return screen::con.col - screen::text_region().left;
}
void console_put(void*, std::uint8_t c) {
  // WIDTH n: a full line ends before the next printable byte.
  if (screen::con.print_width && c >= 32 && console_column(nullptr) >= screen::con.print_width) screen::put_char(13);
  screen::put_char(c);
}

void put_bytes(OutSink& out, const char* p, std::uint32_t n) {
  for (std::uint32_t i = 0; i < n; ++i) out.put(out.ctx, static_cast<std::uint8_t>(p[i]));
}

bool is_print_end(const Token* t) { return t->kind == kTokEnd || t->kind == ':' || t->kind == KW_ELSE; }

void next_zone(OutSink& out) {
  const std::uint32_t col = out.column(out.ctx);
  const std::uint32_t next = (col / kZoneWidth + 1) * kZoneWidth;
  // Only whole zones count: from the last one a comma goes to the next line.
  if (out.width && next + kZoneWidth > out.width) {
    sink_newline(out);
    return;
  }
  while (out.column(out.ctx) < next) out.put(out.ctx, ' ');
}

}  // namespace

OutSink console_sink() {
  const screen::Region r = screen::text_region();
  std::uint32_t width = r.right - r.left + 1;
  if (screen::con.print_width && screen::con.print_width < width) width = screen::con.print_width;
  return OutSink{console_put, console_column, width, nullptr};
}

void sink_newline(OutSink& out) {
  out.put(out.ctx, 13);
  if (out.put != console_put) out.put(out.ctx, 10);
}

void print_value(const values::Value& v, OutSink& out) {
  if (v.type == values::kString) {
    put_bytes(out, v.s.ptr, v.s.len);
    return;
  }
  char buf[512];
  std::uint32_t n = values::number_to_text(v, buf);
  buf[n++] = ' ';
  put_bytes(out, buf, n);
}

void print_list(const Token*& t, OutSink& out) {
  bool newline = true;
  while (!is_print_end(t)) {
    newline = true;
    if (t->kind == KW_USING) {
      ++t;
      values::Value f;
      if (!values::eval(t, &f)) return;
      if (f.type != values::kString) {
        raise("Type mismatch");
        return;
      }
      if (!values::expect(t, ';', "Syntax error")) return;
      print_using(f.s.ptr, f.s.len, t, out);
      return;
    }
    if (t->kind == ';') {
      ++t;
      newline = false;
      continue;
    }
    if (t->kind == ',') {
      ++t;
      next_zone(out);
      newline = false;
      continue;
    }
    if (t->kind == kTokIdent && t[1].kind == '(' &&
        (std::strcmp(t->name(), "TAB") == 0 || std::strcmp(t->name(), "SPC") == 0)) {
      const bool tab = t->name()[0] == 'T';
      t += 2;
      std::int64_t n;
      if (!values::eval_int64(t, &n) || !values::expect(t, ')', "Expected )")) return;
      if (tab) {
        // TAB(n): to column n (1-based); on the next line when already past it.
        if (n < 1) n = 1;
        std::uint32_t target = static_cast<std::uint32_t>(n - 1);
        if (out.width) target %= out.width;
        if (out.column(out.ctx) > target) sink_newline(out);
        while (out.column(out.ctx) < target) out.put(out.ctx, ' ');
      } else {
        if (n < 0) n = 0;
        if (out.width && n > out.width) n %= out.width;
        for (std::int64_t i = 0; i < n; ++i) out.put(out.ctx, ' ');
      }
      newline = false;
      if (t->kind == ';') ++t;
      continue;
    }
    values::Value v;
    if (!values::eval(t, &v)) return;
    print_value(v, out);
    // Items written without a separator ("SCORE:"S) follow each other as
    // after ";", which is how old listings are written.
  }
  if (newline) sink_newline(out);
}

void write_list(const Token*& t, OutSink& out) {
  bool first = true;
  while (!is_print_end(t)) {
    if (!first) {
      if (!values::expect(t, ',', "Syntax error")) return;
      out.put(out.ctx, ',');
    }
    first = false;
    values::Value v;
    if (!values::eval(t, &v)) return;
    if (v.type == values::kString) {
      out.put(out.ctx, '"');
      put_bytes(out, v.s.ptr, v.s.len);
      out.put(out.ctx, '"');
    } else {
      char buf[512];
      const std::uint32_t n = values::number_to_text(v, buf);
      const std::uint32_t skip = buf[0] == ' ' ? 1 : 0;  // no sign blank in WRITE
      put_bytes(out, buf + skip, n - skip);
    }
  }
  sink_newline(out);
}

// --- PRINT USING ------------------------------------------------------------

namespace {

// A numeric field: ## .## with ** $$ **$ , + - ^^^^.
struct NumField {
  int lead = 0;      // positions before the point ($ and * fill positions included)
  int trail = 0;     // digits after the point
  bool point = false;
  bool comma = false;
  bool sign_lead = false;  // "+" in front
  bool sign_trail = false; // "+" behind
  bool minus_trail = false;// "-" behind
  bool stars = false;
  bool dollar = false;
  int carets = 0;    // 4 or 5: exponent form
  std::uint32_t length = 0;  // characters of the format the field used
};

bool is_num_start(const char* f, std::uint32_t i, std::uint32_t n) {
  const char c = f[i];
  if (c == '#') return true;
  if (c == '.' && i + 1 < n && f[i + 1] == '#') return true;
  if (c == '+' && i + 1 < n && (f[i + 1] == '#' || f[i + 1] == '.' || f[i + 1] == '*' || f[i + 1] == '$')) return true;
  if (c == '*' && i + 1 < n && f[i + 1] == '*') return true;
  if (c == '$' && i + 1 < n && f[i + 1] == '$') return true;
  return false;
}

NumField parse_num_field(const char* f, std::uint32_t i, std::uint32_t n) {
  NumField nf;
  const std::uint32_t start = i;
  if (f[i] == '+') {
    nf.sign_lead = true;
    ++i;
  }
  if (i + 1 < n && f[i] == '*' && f[i + 1] == '*') {
    nf.stars = true;
    nf.lead += 2;
    i += 2;
    if (i < n && f[i] == '$') {
      nf.dollar = true;
      nf.lead += 1;
      ++i;
    }
  } else if (i + 1 < n && f[i] == '$' && f[i + 1] == '$') {
    nf.dollar = true;
    nf.lead += 2;
    i += 2;
  }
  while (i < n && (f[i] == '#' || f[i] == ',')) {
    if (f[i] == ',') nf.comma = true;
    ++nf.lead;
    ++i;
  }
  if (i < n && f[i] == '.') {
    nf.point = true;
    ++i;
    while (i < n && f[i] == '#') {
      ++nf.trail;
      ++i;
    }
  }
  if (i + 3 < n && f[i] == '^' && f[i + 1] == '^' && f[i + 2] == '^' && f[i + 3] == '^') {
    nf.carets = 4;
    i += 4;
    if (i < n && f[i] == '^') {
      nf.carets = 5;
      ++i;
    }
  }
  if (!nf.sign_lead && i < n && f[i] == '+') {
    nf.sign_trail = true;
    ++i;
  } else if (!nf.sign_lead && i < n && f[i] == '-') {
    nf.minus_trail = true;
    ++i;
  }
  nf.length = i - start;
  return nf;
}

// Digits of |v| rounded to `decimals` places, halves away from zero.
std::string fixed_digits(double v, int decimals) {
  char buf[400];
  std::snprintf(buf, sizeof buf, "%.*f", decimals + 3 < 40 ? decimals + 3 : 40, v);
  // Round the decimal text half away from zero at `decimals`.
  std::string s(buf);
  const std::size_t dot = s.find('.');
  std::string intpart = dot == std::string::npos ? s : s.substr(0, dot);
  std::string frac = dot == std::string::npos ? "" : s.substr(dot + 1);
  while (static_cast<int>(frac.size()) < decimals + 1) frac += '0';
  const bool up = frac[static_cast<std::size_t>(decimals)] >= '5';
  std::string digits = intpart;
  digits.append(frac, 0, static_cast<std::size_t>(decimals));
  if (up) {
    int k = static_cast<int>(digits.size()) - 1;
    for (; k >= 0; --k) {
      if (digits[static_cast<std::size_t>(k)] == '9') {
        digits[static_cast<std::size_t>(k)] = '0';
      } else {
        ++digits[static_cast<std::size_t>(k)];
        break;
      }
    }
    if (k < 0) digits.insert(digits.begin(), '1');
  }
  // Put the point back.
  std::string ip = digits.substr(0, digits.size() - static_cast<std::size_t>(decimals));
  std::string fp = digits.substr(digits.size() - static_cast<std::size_t>(decimals));
  while (ip.size() > 1 && ip[0] == '0') ip.erase(ip.begin());
  if (decimals) {
    ip += '.';
    ip += fp;
  }
  return ip;
}

std::string format_number(const NumField& nf, double v) {
  const bool negative = v < 0;
  const double mag = negative ? -v : v;
  std::string body;
  if (nf.carets) {
    // Exponent form: the field's digit positions hold the mantissa; one
    // leading position stays for the sign unless a sign is specified.
    int lead_digits = nf.lead - (nf.sign_lead || nf.sign_trail || nf.minus_trail ? 0 : 1);
    if (lead_digits < 0) lead_digits = 0;
    const int sig = lead_digits + nf.trail > 0 ? lead_digits + nf.trail : 1;
    int e = 0;
    double m = mag;
    if (m != 0) {
      while (m >= 10) { m /= 10; ++e; }
      while (m < 1) { m *= 10; --e; }
      // Scale so that `lead_digits` digits stand before the point.
      e -= lead_digits > 0 ? lead_digits - 1 : -1;
    }
    double scaled = mag == 0 ? 0 : m * (lead_digits > 0 ? 1 : 0.1);
    for (int k = 1; k < lead_digits; ++k) scaled *= 10;
    std::string digits = fixed_digits(scaled, nf.trail);
    if (lead_digits > 0 && digits.find('.') != std::string::npos &&
        static_cast<int>(digits.find('.')) > lead_digits) {
      scaled /= 10;
      ++e;
      digits = fixed_digits(scaled, nf.trail);
    }
    (void)sig;
    if (lead_digits == 0 && digits[0] == '0') digits.erase(digits.begin());
    if (nf.point && nf.trail == 0) digits += '.';  // "##.^^^^": the point is part of the field
    char ebuf[16];
    if (nf.carets == 5) std::snprintf(ebuf, sizeof ebuf, "E%c%03d", e < 0 ? '-' : '+', e < 0 ? -e : e);
    else std::snprintf(ebuf, sizeof ebuf, "E%c%02d", e < 0 ? '-' : '+', e < 0 ? -e : e);
    body = digits;
    body += ebuf;
  } else {
    body = fixed_digits(mag, nf.trail);
    if (!nf.point && body.empty()) body = "0";
    if (nf.point && nf.trail == 0) body += '.';  // "####." prints its point
    if (nf.comma) {
      const std::size_t dot = body.find('.');
      std::string ip = dot == std::string::npos ? body : body.substr(0, dot);
      const std::string rest = dot == std::string::npos ? "" : body.substr(dot);
      std::string grouped;
      for (std::size_t k = 0; k < ip.size(); ++k) {
        if (k > 0 && (ip.size() - k) % 3 == 0) grouped += ',';
        grouped += ip[k];
      }
      grouped += rest;
      body = grouped;
    }
    // ".##" fields print no leading zero; with room before the point one is kept.
    if (nf.lead == 0 && body.size() > 1 && body[0] == '0' && body[1] == '.') body.erase(body.begin());
  }
  std::string front;
  if (nf.sign_lead) front = negative ? "-" : "+";
  else if (negative && !nf.minus_trail && !nf.sign_trail) front = "-";
  if (nf.dollar) front += "$";
  std::string text = front;
  text += body;
  const std::size_t point = nf.carets ? text.size() : (text.find('.') == std::string::npos ? text.size() : text.find('.'));
  const int width_before = nf.lead + (nf.sign_lead ? 1 : 0);
  std::string out;
  if (!nf.carets && static_cast<int>(point) > width_before) {
    out = "%";  // the number does not fit the field
    out += text;
  } else {
    const int pad = nf.carets ? width_before + (nf.point ? 1 : 0) + nf.trail + nf.carets -
                                    static_cast<int>(text.size())
                              : width_before - static_cast<int>(point);
    out.assign(pad > 0 ? static_cast<std::size_t>(pad) : 0, nf.stars ? '*' : ' ');
    out += text;
  }
  if (nf.sign_trail) out += negative ? "-" : "+";
  else if (nf.minus_trail) out += negative ? "-" : " ";
  return out;
}

}  // namespace

bool format_using_number(const char* field, std::uint32_t field_len, double v, char* out, std::uint32_t* out_len) {
  if (field_len == 0 || !is_num_start(field, 0, field_len)) return false;
  const NumField nf = parse_num_field(field, 0, field_len);
  const std::string s = format_number(nf, v);
  std::memcpy(out, s.data(), s.size());
  *out_len = static_cast<std::uint32_t>(s.size());
  return true;
}

void print_using(const char* f, std::uint32_t n, const Token*& t, OutSink& out) {
  if (n == 0) {
    raise("Illegal function call");
    return;
  }
  bool any_field = false;
  std::uint32_t i = 0;
  bool more = !is_print_end(t);
  // A format without any field cannot take an item: refuse before printing.
  bool has_field = false;
  for (std::uint32_t k = 0; k < n && !has_field; ++k) {
    if (f[k] == '_') {
      ++k;
      continue;
    }
    has_field = f[k] == '!' || f[k] == '&' || is_num_start(f, k, n) ||
                (f[k] == '\\' && [&] {
                  std::uint32_t j = k + 1;
                  while (j < n && f[j] == ' ') ++j;
                  return j < n && f[j] == '\\';
                }());
  }
  if (more && !has_field) {
    raise("Illegal function call");
    return;
  }
  bool trailing_sep = false;
  // Literal text up to the next field is printed; each field takes one item;
  // the format starts over when items remain at its end.
  while (more) {
    if (i >= n) {
      if (!any_field) {
        raise("Illegal function call");
        return;
      }
      i = 0;
    }
    const char c = f[i];
    if (c == '_' && i + 1 < n) {
      out.put(out.ctx, static_cast<std::uint8_t>(f[i + 1]));
      i += 2;
      continue;
    }
    bool is_string_field = c == '!' || c == '&';
    std::uint32_t slash_len = 0;
    if (c == '\\') {
      std::uint32_t j = i + 1;
      while (j < n && f[j] == ' ') ++j;
      if (j < n && f[j] == '\\') {
        is_string_field = true;
        slash_len = j - i + 1;
      }
    }
    if (!is_string_field && !is_num_start(f, i, n)) {
      out.put(out.ctx, static_cast<std::uint8_t>(c));
      ++i;
      continue;
    }
    any_field = true;
    values::Value v;
    if (!values::eval(t, &v)) return;
    if (is_string_field) {
      if (v.type != values::kString) {
        raise("Type mismatch");
        return;
      }
      if (c == '!') {
        out.put(out.ctx, v.s.len ? static_cast<std::uint8_t>(v.s.ptr[0]) : ' ');
        ++i;
      } else if (c == '&') {
        put_bytes(out, v.s.ptr, v.s.len);
        ++i;
      } else {
        for (std::uint32_t k = 0; k < slash_len; ++k) out.put(out.ctx, k < v.s.len ? static_cast<std::uint8_t>(v.s.ptr[k]) : ' ');
        i += slash_len;
      }
    } else {
      double d;
      if (v.type == values::kString) {
        raise("Type mismatch");
        return;
      }
      if (!values::value_to_double(v, &d)) return;
      if (v.type == values::kSingle && d - d == 0) {
        // A SINGLE has 7 significant digits; digits beyond them would show
        // the binary value's noise in wide fields.
        char seven[32];
        std::snprintf(seven, sizeof seven, "%.7g", d);
        d = std::strtod(seven, nullptr);
      }
      const NumField nf = parse_num_field(f, i, n);
      const std::string s = format_number(nf, d);
      put_bytes(out, s.data(), static_cast<std::uint32_t>(s.size()));
      i += nf.length;
    }
    trailing_sep = false;
    if (t->kind == ';' || t->kind == ',') {
      ++t;
      trailing_sep = true;
    }
    more = !is_print_end(t);
  }
  // Literal text after the last field, up to the next field.
  while (i < n) {
    const char c = f[i];
    if (c == '_' && i + 1 < n) {
      out.put(out.ctx, static_cast<std::uint8_t>(f[i + 1]));
      i += 2;
      continue;
    }
    if (c == '!' || c == '&' || c == '\\' || is_num_start(f, i, n)) break;
    out.put(out.ctx, static_cast<std::uint8_t>(c));
    ++i;
  }
  if (!trailing_sep) sink_newline(out);
}

void (*print_file_hook)(const Token*& t) = nullptr;
void (*write_file_hook)(const Token*& t) = nullptr;

void stmt_print(const Token*& t) {
  if (t[1].kind == '#' && print_file_hook) return print_file_hook(t);
  ++t;  // PRINT or ?
  OutSink out = console_sink();
  print_list(t, out);
}

void stmt_write(const Token*& t) {
  if (t[1].kind == '#' && write_file_hook) return write_file_hook(t);
  ++t;
  OutSink out = console_sink();
  write_list(t, out);
}

}  // namespace core
