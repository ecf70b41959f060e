// Key names for KEYDOWN: single letters and digits, then the named keys with
// the spellings users type most (ESC and ESCAPE, PGUP and PAGEUP, ...).
#include "screen/keynames.h"

#include "host/ui.h"

namespace screen {

namespace {

struct KeyName {
  const char* name;
  int id;
};

const KeyName kNames[] = {
    {"SPACE", host::kKeyIdSpace},     {"UP", host::kKeyIdUp},           {"DOWN", host::kKeyIdDown},
    {"LEFT", host::kKeyIdLeft},       {"RIGHT", host::kKeyIdRight},     {"HOME", host::kKeyIdHome},
    {"END", host::kKeyIdEnd},         {"PGUP", host::kKeyIdPageUp},     {"PAGEUP", host::kKeyIdPageUp},
    {"PGDN", host::kKeyIdPageDown},   {"PAGEDOWN", host::kKeyIdPageDown}, {"INS", host::kKeyIdInsert},
    {"INSERT", host::kKeyIdInsert},   {"DEL", host::kKeyIdDelete},      {"DELETE", host::kKeyIdDelete},
    {"ESC", host::kKeyIdEsc},         {"ESCAPE", host::kKeyIdEsc},      {"ENTER", host::kKeyIdEnter},
    {"RETURN", host::kKeyIdEnter},    {"TAB", host::kKeyIdTab},         {"BACKSPACE", host::kKeyIdBackspace},
    {"SHIFT", host::kKeyIdShift},     {"CTRL", host::kKeyIdCtrl},       {"CONTROL", host::kKeyIdCtrl},
    {"ALT", host::kKeyIdAlt},
};

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

bool same(const char* name, const char* s, std::uint32_t n) {
  std::uint32_t i = 0;
  for (; i < n && name[i]; ++i)
    if (upper(s[i]) != name[i]) return false;
  return i == n && name[i] == 0;
}

}  // namespace

int key_id_from_name(const char* s, std::uint32_t n) {
  if (n == 1) {
    const char c = upper(s[0]);
    if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return c;
    if (c == ' ') return host::kKeyIdSpace;
    return -1;
  }
  // F1..F12
  if ((n == 2 || n == 3) && upper(s[0]) == 'F' && s[1] >= '1' && s[1] <= '9') {
    int k = s[1] - '0';
    if (n == 3) {
      if (k != 1 || s[2] < '0' || s[2] > '2') return -1;
      k = 10 + (s[2] - '0');
    }
    return host::kKeyIdF1 + k - 1;
  }
  for (const KeyName& k : kNames)
    if (same(k.name, s, n)) return k.id;
  return -1;
}

}  // namespace screen
