#!/usr/bin/env python3
"""Checks the dynamic symbol table of a library (libzqcommon, libzqfleet)
against the public headers.

Usage: exported_symbols.py LIBRARY INCLUDE_DIR SYMBOLS_FILE [--write]

1. Every defined dynamic symbol must belong to a declaration that a public
   header marks ZQ_EXPORT: a member (or typeinfo, vtable, thunk) of an exported
   class, an exported free function or variable, a table of a named enumeration
   declared with ZQ_SUPERENUM_DECLARE, or a C symbol ending in _LIBRARYINFO.
   Anything else (an internal helper, a zqdetail function) fails the check.
2. The recorded ABI (SYMBOLS_FILE, one mangled name a line) must still be
   exported in full: a removed or changed signature fails; new symbols are
   listed and pass. --write rewrites SYMBOLS_FILE from the library.
"""
import pathlib
import re
import subprocess
import sys

PREFIXES = ("TLS init function for ", "TLS wrapper function for ", "typeinfo name for ", "typeinfo for ", "vtable for ", "VTT for ",
            "non-virtual thunk to ", "virtual thunk to ", "guard variable for ")
# Symbols the toolchain adds when sanitizers instrument the library.
TOOLCHAIN = re.compile(r"^(__odr_asan|__asan|__tsan|__ubsan|__sanitizer|_init$|_fini$)")
# Type information of a dependency's classes, which the undefined-behaviour
# sanitizer's type checks make the compiler emit (weak, and identical to the
# dependency's own): not part of this library's interface.
DEPENDENCY_TYPEINFO = re.compile(r"^typeinfo (name )?for (prometheus|std)::")


def strip_comments(text):
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    return re.sub(r"//[^\n]*", "", text)


def exported_names(include_dir):
    """Qualified names of the ZQ_EXPORT classes, functions and variables."""
    classes, entities, enums = set(), set(), set()
    for header in sorted(pathlib.Path(include_dir).rglob("*.h")):
        namespaces, depth_at = [], []
        depth = 0
        lines = strip_comments(header.read_text()).split("\n")
        for i, line in enumerate(lines):
            if line.startswith("#"):
                continue
            prefix = "".join(n + "::" for n in namespaces)
            m = re.match(r"\s*namespace\s+(\w+)\s*\{", line)
            if m:
                namespaces.append(m.group(1))
                depth_at.append(depth)
            m = re.search(r"\b(?:class|struct)\s+ZQ_EXPORT\s+(\w+)", line)
            if m:
                classes.add(prefix + m.group(1))
            elif "ZQ_EXPORT" in line and "ZQ_SUPERENUM_DECLARE" not in line:
                # the declaration may go on over several lines: up to ( ; or [
                decl = line.split("ZQ_EXPORT", 1)[1]
                j = i
                while not re.search(r"[(;\[]", decl) and j + 1 < len(lines):
                    j += 1
                    decl += " " + lines[j]
                ref = re.search(r"\(&\s*(\w+)\)", decl)  # a reference to an array
                m = re.match(r"([^(;\[=]*?)(operator\s*\S+?|\w+)\s*[(;\[)]", decl)
                if ref:
                    entities.add(prefix + ref.group(1))
                elif m:
                    name = re.sub(r"[()&\s]", "", m.group(2))
                    if name.startswith("operator"):
                        name = "operator" + m.group(2)[len("operator"):].strip()
                    entities.add(prefix + name)
            m = re.search(r"ZQ_SUPERENUM_DECLARE\(([\w:]+)\)", line)
            if m:
                enums.add(m.group(1))
            depth += line.count("{") - line.count("}")
            while depth_at and depth <= depth_at[-1]:
                depth_at.pop()
                namespaces.pop()
    return classes, entities, enums


def entity_of(demangled):
    """The qualified name a demangled symbol belongs to, without arguments."""
    for p in PREFIXES:
        if demangled.startswith(p):
            demangled = demangled[len(p):]
    demangled = demangled.replace("[abi:cxx11]", "")
    depth = 0
    start = 0
    for k, c in enumerate(demangled):
        if c == "<":
            depth += 1
        elif c == ">":
            depth -= 1
        elif c == " " and depth == 0 and "operator" not in demangled[:k + 1]:
            start = k + 1  # after a return type
        elif c == "(" and depth == 0 and k > 0 and not demangled[:k].endswith("operator"):
            return demangled[start:k]
    return demangled[start:]


def allowed(symbol, demangled, classes, entities, enums):
    if TOOLCHAIN.match(symbol) or symbol.endswith("_LIBRARYINFO") or DEPENDENCY_TYPEINFO.match(demangled):
        return True
    name = entity_of(demangled)
    if name in entities or name in classes:
        return True
    if any(name.startswith(c + "::") for c in classes):
        return True
    m = re.match(r"SuperEnum<([\w:]+)>::", name)
    return bool(m and m.group(1) in enums)


def main():
    library, include_dir, symbols_file = sys.argv[1:4]
    nm = subprocess.run(["nm", "-D", "--defined-only", library], check=True,
                        capture_output=True, text=True).stdout.split("\n")
    symbols = sorted({line.split()[-1] for line in nm if line.strip()})
    demangled = subprocess.run(["c++filt"], input="\n".join(symbols), check=True,
                               capture_output=True, text=True).stdout.split("\n")
    classes, entities, enums = exported_names(include_dir)
    bad = [d for s, d in zip(symbols, demangled) if not allowed(s, d, classes, entities, enums)]
    for d in bad:
        print("not declared ZQ_EXPORT in a public header:", d)
    print(f"{len(symbols)} exported symbols, {len(bad)} not in the public interface")
    path = pathlib.Path(symbols_file)
    if "--write" in sys.argv:
        path.write_text("".join(s + "\n" for s in symbols if not TOOLCHAIN.match(s)))
        return 1 if bad else 0
    recorded = [s for s in path.read_text().split("\n") if s]
    missing = sorted(set(recorded) - set(symbols))
    added = sorted(set(symbols) - set(recorded))
    for s in missing[:40]:
        print("ABI break: recorded symbol no longer exported:", s)
    if len(missing) > 40:
        print(f"... and {len(missing) - 40} more")
    if added:
        print(f"{len(added)} symbols added since {path.name} was recorded "
              "(record them with --write when the interface is released)")
    return 1 if bad or missing else 0


if __name__ == "__main__":
    sys.exit(main())
