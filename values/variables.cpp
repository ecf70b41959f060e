// Descriptor table, names and types, DEFxxx letters, COMMON, the clear.
#include "values/variables.h"

#include <cstring>

#include "core/errors.h"
#include "core/keywords.h"
#include "values/arena.h"
#include "values/store.h"
#include "values/strings.h"

namespace values {

int option_base = 0;
bool array_dimensioned = false;

namespace detail {
std::uint32_t table_gen = 1;
std::uint32_t type_gen = 1;
}  // namespace detail
using detail::table_gen;
using detail::type_gen;

namespace {

std::uint32_t count = 0;
std::uint8_t default_types[26];
CommonEntry common[kMaxCommon];
int common_n = 0;

const char* const kReadOnly[24] = {
    "TIMER", "TIME$", "DATE$", "INKEY$", "CSRLIN", "ERL", "ERR", "ERROR$",
    "RND", "GRAMAXX", "GRAMAXY", "TXTMAXX", "TXTMAXY", "SCRNADR", "GRAPITCH", "MOUSEPRESENT",
    "KEYSTATEAVAILABLE", "PARTHREADS", "PARWORKERS", "COMMANDLINECOUNT", "LOMEM", "HIMEM", "FREEBOT", "FREETOP",
};

// The built-in function names; compared by base name, so SIN# is refused too.
const char* const kFunctionNames[] = {
    "EVAL", "GETVAR", "FILEATTR", "DRIVETYPE", "DRIVEPATH$", "SYSTEMINFO$", "BATTERYPERCENT", "FILECRC",
    "CRC32", "ABS", "ASC", "ATN", "BMPHEIGHT", "BMPLOADED", "BMPWIDTH", "CDBL", "CHR$", "CINT",
    "CLIPBOARD$", "COMMANDLINEARG$", "COMP", "CONJ", "COS", "COSH", "CPLX", "CSNG", "CSRLIN", "CVD",
    "CVI", "CVS", "DATE$", "DNS$", "ENVIRON$", "EOF", "ERL", "ERR", "ERROR$", "EXP", "FIX", "FRE",
    "HEX$", "HTTPGET$", "HTTPSTATUS", "IIF", "INKEY$", "INPUT$", "INSTR", "INT", "INV", "KEYDOWN",
    "KEYSTATEAVAILABLE", "LBOUND", "LCASE$", "LEFT$", "LEN", "LOC", "LOF", "LOG", "MID$", "MIDLENGTH",
    "MIDPLAYING", "MIDPOS", "MIDSTATE", "MKD$", "MKI$", "MKS$", "MOUSEB", "MOUSEPRESENT", "MOUSEWHEEL",
    "MOUSEX", "MOUSEY", "NETERROR$", "NETPRESENT", "NORM", "NORM2", "OCT", "OCT$", "PEEK", "PEEK16",
    "PEEK32", "PEEK64", "POINT", "POS", "QUAT", "RIGHT$", "RND", "SCREEN", "SGN", "SIN", "SINH",
    "SOUNDACTIVE", "SOUNDAVAILABLE", "SOUNDGROUP", "SOUNDGROUP$", "SOUNDLOAD", "SOUNDNAME$",
    "SOUNDPRESENT", "SPACE$", "SPC", "SPRITECOLLIDE", "SPRITEHEIGHT", "SPRITEKEYCOLOR", "SPRITELOADED",
    "SPRITEWIDTH", "SPRITEX", "SPRITEY", "SQR", "SQRT", "STR$", "STRING$", "TAB", "TAN", "TANH",
    "TCPCONNECTED", "TCPEOF", "TCPRECV$", "TAMBRILADR", "TIME$", "TIMER", "UBOUND", "UCASE$", "VAL",
    "VARPTR", "VIDEOMODES", "WAVACTIVE", "WAVCHANNEL", "WAVLENGTH", "WAVLOADED", "WAVPLAYING", "WAVPOS",
    "WAVSLOT", "WAVSTATE",
};

bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool is_word(char c) { return is_letter(c) || (c >= '0' && c <= '9') || c == '_'; }

}  // namespace

const char* function_name(int index) {
  constexpr int n = static_cast<int>(sizeof kFunctionNames / sizeof kFunctionNames[0]);
  return index >= 0 && index < n ? kFunctionNames[index] : nullptr;
}

const char* read_only_name(int index) { return index >= 0 && index < 24 ? kReadOnly[index] : nullptr; }

Descriptor* descriptor_table() { return reinterpret_cast<Descriptor*>(arena.lomem); }
std::uint32_t descriptor_count() { return count; }
void bump_table_generation() { ++table_gen; }

std::size_t base_length(const char* name) {
  const std::size_t n = std::strlen(name);
  if (n >= 2 && name[n - 1] == '&' && name[n - 2] == '&') return n - 2;
  if (n >= 1 && std::strchr("!#$%&@", name[n - 1])) return n - 1;
  return n;
}

std::uint8_t default_type(char letter) {
  if (letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 32);
  return letter >= 'A' && letter <= 'Z' ? default_types[letter - 'A'] : static_cast<std::uint8_t>(kDouble);
}

std::uint8_t type_of_name(const char* name) {
  const std::size_t n = std::strlen(name);
  if (n == 0) return kDouble;
  switch (name[n - 1]) {
    case '%': return kInteger;
    case '!': return kSingle;
    case '#': return kDouble;
    case '$': return kString;
    case '@': return kHyper;
    case '&': return n >= 2 && name[n - 2] == '&' ? kInt64 : kLong;
    default: break;
  }
  return is_letter(name[0]) ? default_type(name[0]) : static_cast<std::uint8_t>(kDouble);
}

bool check_identifier(const char* text, std::size_t length, char out[40]) {
  if (length == 0 || !(is_letter(text[0]) || text[0] == '_')) {
    core::raise("Invalid variable name");
    return false;
  }
  std::size_t base = 0;
  while (base < length && is_word(text[base])) ++base;
  if (base > 37) {
    core::raise("Identifier too long (37 characters maximum)");
    return false;
  }
  const std::size_t rest = length - base;
  const char* suffix = text + base;
  const bool ok_suffix = rest == 0 || (rest == 1 && std::strchr("!#$%&@", suffix[0])) ||
                         (rest == 2 && suffix[0] == '&' && suffix[1] == '&');
  if (!ok_suffix) {
    core::raise("Invalid variable name");
    return false;
  }
  if (core::keyword_lookup(text, base)) {
    core::raise("Keyword cannot be a variable name");
    return false;
  }
  std::memset(out, 0, 40);
  for (std::size_t i = 0; i < length; ++i) {
    char c = text[i];
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    out[i] = c;
  }
  return true;
}

bool is_read_only_name(const char* name) {
  for (const char* r : kReadOnly)
    if (std::strcmp(r, name) == 0) return true;
  return false;
}

bool is_function_name(const char* name) {
  const std::size_t n = base_length(name);
  for (const char* f : kFunctionNames) {
    if (base_length(f) == n && std::memcmp(f, name, n) == 0) return true;
  }
  return false;
}

Descriptor* find_descriptor(const char* name, bool array, std::uint8_t type) {
  const std::size_t n = base_length(name);
  Descriptor* t = descriptor_table();
  for (std::uint32_t i = 0; i < count; ++i) {
    Descriptor& d = t[i];
    if (d.is_array() != array || d.type != type) continue;
    if (base_length(d.name) == n && std::memcmp(d.name, name, n) == 0) return &d;
  }
  return nullptr;
}

Descriptor* create_descriptor(const char* name, bool array) {
  if (std::strcmp(name, "ERROR$") == 0) {
    core::raise("Illegal function call");
    return nullptr;
  }
  if (count >= kMaxDescriptors) {
    core::raise("Too many variables");
    return nullptr;
  }
  Descriptor& d = descriptor_table()[count];
  std::memset(&d, 0, sizeof d);
  std::size_t n = std::strlen(name);
  if (n > 39) n = 39;
  std::memcpy(d.name, name, n);
  d.type = type_of_name(name);
  d.flags = array ? 1 : 0;
  ++count;
  return &d;
}

Descriptor* scalar_descriptor(const char* name) {
  Descriptor* d = find_descriptor(name, false, type_of_name(name));
  return d ? d : create_descriptor(name, false);
}

bool cached_store(ScalarCache* cache, const char* name, const Value& v) {
  Descriptor* d = cache->d;
  const std::uint8_t t = type_of_name(name);
  if (!(d && cache->generation == table_gen && d->type == t && std::strncmp(d->name, name, 39) == 0)) {
    d = scalar_descriptor(name);
    if (!d) return false;
    cache->d = d;
    cache->generation = table_gen;
  }
  if (t == kString) {
    core::raise("Type mismatch");
    return false;
  }
  return store_value(d->value, t, v);
}

void set_default_type(char first, char last, std::uint8_t type) {
  for (char c = first; c <= last; ++c) default_types[c - 'A'] = type;
  if (++type_gen == 0) type_gen = 1;
}

bool common_add(const char* name, bool array) {
  const std::uint8_t t = type_of_name(name);
  for (int i = 0; i < common_n; ++i)
    if (common[i].type == t && common[i].array == array && std::strcmp(common[i].name, name) == 0) {
      core::raise("Duplicate definition");
      return false;
    }
  if (common_n >= kMaxCommon) {
    core::raise("Too many variables");
    return false;
  }
  CommonEntry& e = common[common_n++];
  std::memset(e.name, 0, sizeof e.name);
  std::strncpy(e.name, name, 39);
  e.type = t;
  e.array = array;
  return true;
}

int common_count() { return common_n; }
const CommonEntry& common_entry(int i) { return common[i]; }

void clear_variables() {
  count = 0;
  arena_reset();
  strings_reset();
  set_adoption(true);
  for (std::uint8_t& t : default_types) t = kDouble;
  option_base = 0;
  array_dimensioned = false;
  type_gen = 1;
  common_n = 0;
  ++table_gen;
}

}  // namespace values
