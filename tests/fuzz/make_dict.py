#!/usr/bin/env python3
"""Write the libFuzzer dictionary: every statement keyword (from the keyword
table) and every built-in function and pseudo-variable name (from the
evaluator's tables), plus the punctuation BASIC lines are made of."""
import re
import sys

root, out = sys.argv[1], sys.argv[2]
words = set(re.findall(r"KW\((\w+),", open(f"{root}/core/keywords.def").read()))
builtins = open(f"{root}/values/builtins.cpp").read()
words |= set(re.findall(r'\{"([A-Z][A-Z0-9$]*)", f_', builtins))
words |= set(re.findall(r'"([A-Z][A-Z0-9$]+)"', open(f"{root}/values/variables.cpp").read()))
extra = ['"', ":", ",", ";", "(", ")", "=", "<>", "<=", ">=", "&H", "&O", "#", "!", "%", "&&", "@", "$",
         "E+", "D-", "1E308", "32767", "-32768", "2147483647", "9223372036854775807", "\n10 ", "\nRUN\n"]
with open(out, "w") as f:
    for w in sorted(words):
        f.write(f'kw_{re.sub(r"[^A-Za-z0-9]", "_", w)}="{w}"\n')
    for i, e in enumerate(extra):
        escaped = "".join("\\x%02X" % ord(c) if c in "\"\\\n" else c for c in e)
        f.write(f'p{i}="{escaped}"\n')
