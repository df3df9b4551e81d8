#!/usr/bin/env python3
"""kilngen: C++ for entity, value and enumeration types from one declaration.

A .kiln file declares types; kilngen writes a header and a source with, for
each attribute, the accessors (foo(), fooIs(), fooDel() ...), the change
notification (one virtual onFoo() per attribute in the type's NotifieeConst),
and the reflection record that gives the JSON form. The language:

    namespace Vgw                      # namespace of the following declarations
    include "Kiln/String.h"            # header the generated header includes
    import "entities/Fleet.kiln"       # types declared in another .kiln file
    extern Ipkit::EthAddr text "Ipkit/EthAddr.h"   # value type: text | number | opaque

    enum SessionState : u8 {
      stateInit = 0
      stateConnected = 3
    }

    value MacVtep {                    # a regular value: copyable, ==, <, hash, JSON
      mac : Ipkit::EthAddr
      moves : u32 = 1
      ips : ordered Ipkit::IpAddr -> bool
    }

    entity Status {                    # a shared, reflectable, notifying object
      key name2 : string               # constant, a constructor argument
      running : bool = false           # single value
      table : hash Ipkit::EthAddr -> MacVtep       # keyed values
      members : ordered set Vgw::Uuid  # set
      rows : hash Vgw::Uuid -> entity Row          # owned entities, created by rowsIs(key)
      index : hash Ipkit::IpAddr -> ref const Row  # index of shared entities
      ovsdb : child HwVtepOvsdb        # one owned child, created by ovsdbIs(name)
      code {                           # members written by hand, declared in the class
        void reset();
      }
    }

    entity Global : Vgw::OvsdbDataModelMutable(Vgw::OvsdbDataType::global_) {
      key uuid : Vgw::Uuid inherited   # handed to the base after the initializer text
      switches : ordered set Vgw::Uuid [partial "pSwitch"]
    }

Attribute options in brackets: `partial` (optionally with the name under which
a partial row marks the attribute absent; default the attribute's name) and
`nojson` (not part of the JSON form; needed for extern opaque types).
Builtin types: bool u8 u16 u32 u64 i32 i64 double string.
"""

import argparse
import os
import re
import sys

BUILTINS = {
    "bool": "bool", "u8": "std::uint8_t", "u16": "std::uint16_t", "u32": "std::uint32_t",
    "u64": "std::uint64_t", "i32": "std::int32_t", "i64": "std::int64_t", "double": "double",
    "string": "Kiln::String",
}


class KilnError(Exception):
    pass


# ---------------------------------------------------------------------------------------------
# Lexing and parsing


TOKEN = re.compile(r'\s*(?:(#[^\n]*)|("(?:[^"\\]|\\.)*")|(->)|([A-Za-z_][A-Za-z0-9_]*(?:::[A-Za-z_][A-Za-z0-9_]*)*)|(-?\d+)|(.))')


class Lexer:
    def __init__(self, text, path):
        self.text = text
        self.path = path
        self.pos = 0
        self.peeked = None

    def line(self, pos=None):
        return self.text.count("\n", 0, self.pos if pos is None else pos) + 1

    def error(self, message):
        raise KilnError(f"{self.path}:{self.line()}: {message}")

    def _next(self):
        while True:
            if self.pos >= len(self.text):
                return None
            m = TOKEN.match(self.text, self.pos)
            if not m or m.end() == self.pos:
                if self.text[self.pos:].strip() == "":
                    self.pos = len(self.text)
                    return None
                self.error("unreadable text")
            self.pos = m.end()
            if m.group(1):
                continue
            tok = m.group(0).strip()
            if tok == "":
                return None
            return tok

    def peek(self):
        if self.peeked is None:
            self.peeked = self._next()
        return self.peeked

    def next(self):
        tok = self.peek()
        self.peeked = None
        if tok is None:
            self.error("unexpected end of file")
        return tok

    def expect(self, want):
        tok = self.next()
        if tok != want:
            self.error(f"expected '{want}', found '{tok}'")
        return tok

    def accept(self, want):
        if self.peek() == want:
            self.next()
            return True
        return False

    def name(self):
        tok = self.next()
        if not re.match(r"[A-Za-z_]", tok):
            self.error(f"expected a name, found '{tok}'")
        return tok

    def string(self):
        tok = self.next()
        if not tok.startswith('"'):
            self.error(f"expected a string, found '{tok}'")
        return tok[1:-1]

    def raw_until(self, stops):
        """Verbatim text up to (not including) the first of `stops` at nesting depth 0."""
        assert self.peeked is None
        depth = 0
        start = self.pos
        in_string = False
        while self.pos < len(self.text):
            c = self.text[self.pos]
            if in_string:
                if c == "\\":
                    self.pos += 1
                elif c == '"':
                    in_string = False
            elif c == '"':
                in_string = True
            elif c in "([{":
                depth += 1
            elif c in ")]}":
                if depth == 0 and c in stops:
                    break
                depth -= 1
            elif depth == 0 and c in stops:
                break
            self.pos += 1
        return self.text[start:self.pos].strip()


class Attr:
    def __init__(self, name, line):
        self.name = name
        self.line = line
        self.is_key = False
        self.inherited = False
        self.kind = "value"           # value map set entityMap refMap child
        self.type = None              # scalar type name (value) / key type (collections)
        self.member = None            # value type of a map / entity type of entity collections
        self.member_const = False
        self.ordered = True
        self.default = None
        self.partial = None
        self.json = True


class Decl:
    def __init__(self, kind, name, namespace, path):
        self.kind = kind              # enum value entity extern
        self.name = name
        self.namespace = namespace
        self.path = path              # the .kiln file
        self.attrs = []
        self.code = None
        self.base = None
        self.base_init = None
        self.enumerators = []
        self.underlying = None
        self.form = None              # for extern: text number opaque
        self.header = None

    @property
    def qname(self):
        return f"{self.namespace}::{self.name}" if self.namespace else self.name


class Unit:
    def __init__(self, path, include_name):
        self.path = path
        self.include_name = include_name  # "entities/OverlaySvc.kiln"
        self.includes = []
        self.imports = []
        self.decls = []


def parse_member(lex, decl):
    line = lex.line()
    first = lex.name()
    # "key" starts a key declaration unless it is itself the attribute's name.
    is_key = first == "key" and lex.peek() != ":"
    attr = Attr(lex.name() if is_key else first, line)
    attr.is_key = is_key
    lex.expect(":")
    tok = lex.peek()
    if tok in ("ordered", "hash"):
        lex.next()
        attr.ordered = tok == "ordered"
        if lex.accept("set"):
            attr.kind = "set"
            attr.type = lex.name()
        else:
            attr.type = lex.name()
            lex.expect("->")
            if lex.accept("entity"):
                attr.kind = "entityMap"
                attr.member = lex.name()
            elif lex.accept("ref"):
                attr.kind = "refMap"
                attr.member_const = lex.accept("const")
                attr.member = lex.name()
            else:
                attr.kind = "map"
                attr.member = lex.name()
    elif tok == "child":
        lex.next()
        attr.kind = "child"
        attr.member = lex.name()
    else:
        attr.type = lex.name()
        if lex.accept("inherited"):
            attr.inherited = True
    if lex.peek() == "=":
        lex.next()
        lex.peeked = None
        attr.default = lex.raw_until("[\n")
    if lex.accept("["):
        while True:
            opt = lex.name()
            if opt == "partial":
                attr.partial = attr.name
                if lex.peek().startswith('"'):
                    attr.partial = lex.string()
            elif opt == "nojson":
                attr.json = False
            else:
                lex.error(f"unknown attribute option '{opt}'")
            if lex.accept("]"):
                break
            lex.expect(",")
    if attr.is_key and attr.kind != "value":
        lex.error(f"key '{attr.name}' must be a single value")
    if attr.inherited and not attr.is_key:
        lex.error(f"only a key can be inherited ('{attr.name}')")
    return attr


def parse_body(lex, decl):
    lex.expect("{")
    while not lex.accept("}"):
        if lex.peek() == "code":
            lex.next()
            lex.expect("{")
            decl.code = lex.raw_until("}")
            lex.expect("}")
            continue
        decl.attrs.append(parse_member(lex, decl))
    names = [a.name for a in decl.attrs]
    dup = {n for n in names if names.count(n) > 1}
    if dup:
        lex.error(f"{decl.name}: attribute declared twice: {', '.join(sorted(dup))}")


def parse(text, path, include_name):
    lex = Lexer(text, path)
    unit = Unit(path, include_name)
    namespace = ""
    while lex.peek() is not None:
        word = lex.next()
        if word == "namespace":
            namespace = lex.name()
        elif word == "include":
            unit.includes.append(lex.string())
        elif word == "import":
            unit.imports.append(lex.string())
        elif word == "extern":
            qname = lex.name()
            ns, _, name = qname.rpartition("::")
            decl = Decl("extern", name, ns, path)
            decl.form = lex.name()
            if decl.form not in ("text", "number", "opaque"):
                lex.error(f"extern {qname}: form must be text, number or opaque")
            if lex.peek() is not None and lex.peek().startswith('"'):
                decl.header = lex.string()
            unit.decls.append(decl)
        elif word == "enum":
            decl = Decl("enum", lex.name(), namespace, path)
            lex.expect(":")
            decl.underlying = lex.name()
            if decl.underlying not in BUILTINS or decl.underlying in ("bool", "double", "string"):
                lex.error(f"enum {decl.name}: underlying type must be an integer type")
            lex.expect("{")
            while not lex.accept("}"):
                en = lex.name()
                lex.expect("=")
                value = lex.next()
                if not re.fullmatch(r"-?\d+", value):
                    lex.error(f"enum {decl.name}: {en} needs an integer value")
                decl.enumerators.append((en, int(value)))
            unit.decls.append(decl)
        elif word in ("value", "entity"):
            decl = Decl(word, lex.name(), namespace, path)
            if word == "entity" and lex.accept(":"):
                decl.base = lex.name()
                if lex.peek() == "(":
                    lex.next()
                    lex.peeked = None
                    decl.base_init = lex.raw_until(")")
                    lex.expect(")")
            parse_body(lex, decl)
            unit.decls.append(decl)
        else:
            lex.error(f"unexpected '{word}'")
    return unit


# ---------------------------------------------------------------------------------------------
# Resolution


class Universe:
    def __init__(self, search):
        self.search = search
        self.by_qname = {}
        self.loaded = {}

    def load(self, include_name, path=None):
        if include_name in self.loaded:
            return self.loaded[include_name]
        if path is None:
            for d in self.search:
                candidate = os.path.join(d, include_name)
                if os.path.exists(candidate):
                    path = candidate
                    break
            else:
                raise KilnError(f"cannot find imported file {include_name} in {', '.join(self.search)}")
        with open(path) as f:
            unit = parse(f.read(), path, include_name)
        self.loaded[include_name] = unit
        for imp in unit.imports:
            self.load(imp)
        for d in unit.decls:
            other = self.by_qname.get(d.qname)
            if other and not (other.kind == d.kind == "extern"):
                raise KilnError(f"{path}: {d.qname} declared twice (also in {other.path})")
            self.by_qname.setdefault(d.qname, d)
        return unit

    def resolve(self, name, namespace, where):
        if name in BUILTINS:
            return None
        for candidate in (f"{namespace}::{name}" if namespace else name, name):
            if candidate in self.by_qname:
                return self.by_qname[candidate]
        raise KilnError(f"{where}: unknown type '{name}'")


# ---------------------------------------------------------------------------------------------
# Code generation


class Gen:
    def __init__(self, universe, unit):
        self.u = universe
        self.unit = unit

    def decl_of(self, name, ns, where):
        return self.u.resolve(name, ns, where)

    def cpp(self, name, ns, where):
        d = self.decl_of(name, ns, where)
        return BUILTINS[name] if d is None else d.qname

    def form(self, name, ns, where):
        d = self.decl_of(name, ns, where)
        if d is None:
            return f"Kiln::BuiltinForm<{BUILTINS[name]}>"
        if d.kind == "enum":
            return f"Kiln::EnumForm<{d.qname}>"
        if d.kind == "value":
            return f"Kiln::ValueForm<{d.qname}>"
        if d.kind == "extern":
            if d.form == "opaque":
                return None
            return f"Kiln::{'TextForm' if d.form == 'text' else 'NumberForm'}<{d.qname}>"
        raise KilnError(f"{where}: '{name}' is an entity; use 'entity', 'ref' or 'child' to hold it")

    def entity(self, name, ns, where):
        d = self.decl_of(name, ns, where)
        if d is None or d.kind != "entity":
            raise KilnError(f"{where}: '{name}' is not an entity type")
        return d

    def all_keys(self, decl):
        """The constructor keys of an entity: its own, after those of generated bases."""
        return [a for a in decl.attrs if a.is_key]

    def container(self, attr, key, value=None):
        if attr.kind == "set":
            return f"{'std::set' if attr.ordered else 'std::unordered_set'}<{key}>"
        return f"{'std::map' if attr.ordered else 'std::unordered_map'}<{key}, {value}>"

    # ---- enums ------------------------------------------------------------------------

    def gen_enum(self, d, h, c):
        under = BUILTINS[d.underlying]
        h.append(f"enum class {d.name} : {under} {{")
        for en, v in d.enumerators:
            h.append(f"  {en} = {v},")
        h.append("};")
        h.append(f"const char* enumName({d.name} v);")
        h.append(f"bool enumFromName(std::string_view text, {d.name}& out);")
        h.append(f"bool enumFromValue(std::int64_t value, {d.name}& out);")
        h.append(f"std::ostream& operator<<(std::ostream& os, {d.name} v);")
        h.append("")
        c.append(f"const char* enumName({d.name} v) {{")
        c.append("  switch (v) {")
        for en, _ in d.enumerators:
            c.append(f"    case {d.name}::{en}: return \"{en}\";")
        c.append("  }")
        c.append(f"  return \"{d.name}(?)\";")
        c.append("}")
        c.append(f"bool enumFromName(std::string_view text, {d.name}& out) {{")
        for en, _ in d.enumerators:
            c.append(f"  if (text == \"{en}\") {{ out = {d.name}::{en}; return true; }}")
        c.append("  return false;")
        c.append("}")
        c.append(f"bool enumFromValue(std::int64_t value, {d.name}& out) {{")
        c.append("  switch (value) {")
        for en, v in d.enumerators:
            c.append(f"    case {v}: out = {d.name}::{en}; return true;")
        c.append("    default: return false;")
        c.append("  }")
        c.append("}")
        c.append(f"std::ostream& operator<<(std::ostream& os, {d.name} v) {{ return os << enumName(v); }}")
        c.append("")

    # ---- values -----------------------------------------------------------------------

    def gen_value(self, d, h, c):
        ns = d.namespace
        where = f"{d.path}: value {d.name}"
        fields = []
        for a in d.attrs:
            w = f"{where}.{a.name}"
            if a.kind in ("entityMap", "refMap", "child"):
                raise KilnError(f"{w}: a value cannot hold entities")
            if a.is_key:
                raise KilnError(f"{w}: values have no keys")
            if a.kind == "value":
                t = self.cpp(a.type, ns, w)
                fields.append((a, t, self.form(a.type, ns, w), None))
            else:
                kt = self.cpp(a.type, ns, w)
                kf = self.form(a.type, ns, w)
                if a.kind == "set":
                    fields.append((a, self.container(a, kt), None, (kt, kf, None, None)))
                else:
                    vt = self.cpp(a.member, ns, w)
                    vf = self.form(a.member, ns, w)
                    fields.append((a, self.container(a, kt, vt), None, (kt, kf, vt, vf)))
        scalars = [f for f in fields if f[3] is None]
        h.append(f"class {d.name} {{")
        h.append(" public:")
        h.append(f"  {d.name}() = default;")
        if scalars:
            params = ", ".join(f"{t} {a.name}" for a, t, _, _ in scalars)
            inits = ", ".join(f"{a.name}_(std::move({a.name}))" for a, _, _, _ in scalars)
            h.append(f"  {'explicit ' if len(scalars) == 1 else ''}{d.name}({params}) : {inits} {{}}")
        for a, t, form, coll in fields:
            if coll is None:
                h.append(f"  const {t}& {a.name}() const {{ return {a.name}_; }}")
                h.append(f"  void {a.name}Is(const {t}& v) {{ {a.name}_ = v; }}")
            else:
                kt, kf, vt, vf = coll
                h.append(f"  const {t}& {a.name}() const {{ return {a.name}_; }}")
                if a.kind == "set":
                    h.append(f"  bool {a.name}(const {kt}& k) const {{ return {a.name}_.contains(k); }}")
                    h.append(f"  void {a.name}Is(const {kt}& k, bool in = true) {{ if (in) {a.name}_.insert(k); else {a.name}_.erase(k); }}")
                else:
                    h.append(f"  {vt} {a.name}(const {kt}& k) const {{ auto it = {a.name}_.find(k); return it == {a.name}_.end() ? {vt}() : it->second; }}")
                    h.append(f"  void {a.name}Is(const {kt}& k, const {vt}& v) {{ {a.name}_.insert_or_assign(k, v); }}")
                h.append(f"  bool {a.name}Del(const {kt}& k) {{ return {a.name}_.erase(k) != 0; }}")
                h.append(f"  void {a.name}DelAll() {{ {a.name}_.clear(); }}")
        h.append("")
        h.append(f"  friend bool operator==(const {d.name}&, const {d.name}&) = default;")
        if fields:
            ties_a = ", ".join(f"a.{a.name}_" for a, *_ in fields)
            ties_b = ", ".join(f"b.{a.name}_" for a, *_ in fields)
            h.append(f"  friend bool operator<(const {d.name}& a, const {d.name}& b) {{")
            h.append(f"    return std::tie({ties_a}) < std::tie({ties_b});")
            h.append("  }")
        else:
            h.append(f"  friend bool operator<(const {d.name}&, const {d.name}&) {{ return false; }}")
        h.append("  std::size_t hash() const;")
        h.append("  Kiln::Json toJson() const;")
        h.append(f"  static {d.name} fromJson(const Kiln::Json& json);")
        h.append(f"  friend std::ostream& operator<<(std::ostream& os, const {d.name}& v);")
        h.append(f"  friend void ringTapeArg(RingTape::Args& a, const {d.name}& v);")
        h.append("")
        if d.code:
            h.append("  " + d.code.replace("\n", "\n  "))
            h.append("")
        h.append(" private:")
        for a, t, _, _ in fields:
            init = f" = {a.default}" if a.default else "{}"
            h.append(f"  {t} {a.name}_{init};")
        h.append("};")
        h.append("")

        c.append(f"std::size_t {d.name}::hash() const {{")
        c.append("  std::size_t h = 0;")
        for a, t, _, coll in fields:
            if coll is None:
                c.append(f"  h = h * 1000003u ^ std::hash<{t}>{{}}({a.name}_);")
            else:
                c.append(f"  h = h * 1000003u ^ {a.name}_.size();")
        c.append("  return h;")
        c.append("}")
        c.append(f"Kiln::Json {d.name}::toJson() const {{")
        c.append("  Kiln::Json out = Kiln::Json::object();")
        for a, t, form, coll in fields:
            if coll is None:
                c.append(f"  out[\"{a.name}\"] = {form}::toJson({a.name}_);")
            else:
                kt, kf, vt, vf = coll
                c.append("  {")
                c.append("    Kiln::Json m = Kiln::Json::object();")
                if a.kind == "set":
                    c.append(f"    for (const auto& k : {a.name}_) m[{kf}::toText(k)] = true;")
                else:
                    c.append(f"    for (const auto& [k, v] : {a.name}_) m[{kf}::toText(k)] = {vf}::toJson(v);")
                c.append(f"    out[\"{a.name}\"] = std::move(m);")
                c.append("  }")
        c.append("  return out;")
        c.append("}")
        c.append(f"{d.name} {d.name}::fromJson(const Kiln::Json& json) {{")
        c.append("  if (!json.is_object()) Kiln::throwJsonError(\"expected an object, got \" + Kiln::jsonTypeName(json));")
        c.append(f"  {d.name} v;")
        c.append("  for (const auto& [member, j] : json.items()) {")
        c.append("    try {")
        first = True
        for a, t, form, coll in fields:
            kw = "if" if first else "} else if"
            first = False
            c.append(f"      {kw} (member == \"{a.name}\") {{")
            if coll is None:
                c.append(f"        v.{a.name}_ = {form}::fromJson(j);")
            else:
                kt, kf, vt, vf = coll
                c.append("        if (!j.is_object()) Kiln::throwJsonError(\"expected an object, got \" + Kiln::jsonTypeName(j));")
                c.append("        for (const auto& [k, x] : j.items()) {")
                if a.kind == "set":
                    c.append(f"          if (Kiln::BuiltinForm<bool>::fromJson(x)) v.{a.name}_.insert({kf}::fromText(k));")
                else:
                    c.append(f"          v.{a.name}_.insert_or_assign({kf}::fromText(k), {vf}::fromJson(x));")
                c.append("        }")
        if fields:
            c.append("      } else {")
            c.append(f"        Kiln::throwJsonError(\"no such field in {d.qname}\");")
            c.append("      }")
        else:
            c.append(f"      Kiln::throwJsonError(\"no such field in {d.qname}\");")
        c.append("    } catch (const Kiln::JsonError& e) {")
        c.append("      throw e.within(member);")
        c.append("    }")
        c.append("  }")
        c.append("  return v;")
        c.append("}")
        c.append(f"std::ostream& operator<<(std::ostream& os, const {d.name}& v) {{")
        parts = []
        for a, t, form, coll in fields:
            if coll is None:
                parts.append(f"\"'{a.name}': \" << {form}::toText(v.{a.name}_)")
            else:
                parts.append(f"\"'{a.name}': \" << v.toJson()[\"{a.name}\"].dump()")
        body = " << \", \" << ".join(parts) if parts else '""'
        c.append(f"  return os << \"Value('{d.qname}', ** {{\" << {body} << \"}})\";")
        c.append("}")
        # The same text for a trace, with the fields kept in binary where the
        # trace facility has a binary form of them.
        parts = []
        for a, t, form, coll in fields:
            if coll is not None:
                arg = f"v.toJson()[\"{a.name}\"].dump()"
            elif form.startswith("Kiln::TextForm<") or form == "Kiln::BuiltinForm<Kiln::String>":
                arg = f"v.{a.name}_"
            elif form.startswith("Kiln::NumberForm<"):
                arg = f"+v.{a.name}_.value()"
            elif form.startswith("Kiln::EnumForm<"):
                arg = f"enumName(v.{a.name}_)"
            elif form == "Kiln::BuiltinForm<bool>":
                arg = f"(v.{a.name}_ ? \"true\" : \"false\")"
            elif form.startswith("Kiln::BuiltinForm<std::") and "int" in form:
                arg = f"+v.{a.name}_"
            else:
                arg = f"{form}::toText(v.{a.name}_)"
            parts.append(f"\"'{a.name}': \" << {arg}")
        body = " << \", \" << ".join(parts) if parts else '""'
        c.append(f"void ringTapeArg(RingTape::Args& a, const {d.name}& v) {{")
        c.append(f"  a << \"Value('{d.qname}', ** {{\" << {body} << \"}})\";")
        c.append("}")
        c.append("")

    # ---- entities ---------------------------------------------------------------------

    def gen_entity(self, d, h, c):
        ns = d.namespace
        where = f"{d.path}: entity {d.name}"
        base_decl = None
        if d.base:
            base_decl = self.u.by_qname.get(d.base) or self.u.by_qname.get(f"{ns}::{d.base}")
            base = base_decl.qname if base_decl else d.base
        else:
            base = "Kiln::Entity"
        keys = [a for a in d.attrs if a.is_key]
        own_keys = [a for a in keys if not a.inherited]
        inherited = [a for a in keys if a.inherited]
        if inherited and not d.base_init:
            raise KilnError(f"{where}: inherited keys need a base initializer")
        for a in keys:
            a.cpp = self.cpp(a.type, ns, f"{where}.{a.name}")
            a.form = self.form(a.type, ns, f"{where}.{a.name}")

        h.append(f"class {d.name} : public {base} {{")
        h.append(" public:")
        h.append("  static const Kiln::TypeInfo typeInfo_;")
        h.append("  const Kiln::TypeInfo& typeInfo() const override { return typeInfo_; }")
        h.append("  class NotifieeConst;")
        if keys:
            params = ", ".join(f"const {a.cpp}& {a.name}" for a in keys)
            init = []
            if d.base_init is not None:
                args = [d.base_init] if d.base_init else []
                args += [a.name for a in inherited]
                init.append(f"{base}({', '.join(args)})")
            init += [f"{a.name}_({a.name})" for a in own_keys]
            h.append(f"  {'explicit ' if len(keys) == 1 else ''}{d.name}({params}){' : ' + ', '.join(init) if init else ''} {{}}")
            first = keys[0]
            h.append(f"  std::string identityText() const override {{ return {first.form}::toText({first.name}()); }}")
        else:
            if d.base_init:
                h.append(f"  explicit {d.name}(Kiln::Name name = Kiln::Name()) : {base}({d.base_init}, std::move(name)) {{}}")
            else:
                h.append(f"  explicit {d.name}(Kiln::Name name = Kiln::Name()) : {base}(std::move(name)) {{}}")
        h.append("")

        policies = []   # (attr, policy-struct lines, attrinfo-expression)
        index = 0
        dispatch = []   # (index, callback-decl, call)
        storage = []
        for a in d.attrs:
            w = f"{where}.{a.name}"
            if a.inherited:
                continue
            P = f"{a.name[0].upper()}{a.name[1:]}Policy"
            info = f"{a.name}Attr_"
            if a.kind == "value":
                t = self.cpp(a.type, ns, w)
                form = self.form(a.type, ns, w)
                if form is None and a.json:
                    raise KilnError(f"{w}: type '{a.type}' has no JSON form; mark the attribute [nojson]")
                if a.is_key:
                    h.append(f"  const {t}& {a.name}() const {{ return {a.name}_; }}")
                    storage.append(f"  const {t} {a.name}_;")
                    if a.json:
                        policies.append((P, [f"using Owner = {d.name};", f"using Form = {form};",
                                             f"static const {t}& get(const Owner& o) {{ return o.{a.name}_; }}"],
                                         f"Kiln::keyAttr<{d.name}::{P}>(\"{a.name}\", {index})", info))
                else:
                    h.append(f"  const {t}& {a.name}() const {{ return {a.name}_; }}")
                    h.append(f"  void {a.name}Is(const {t}& v) {{")
                    h.append(f"    if ({a.name}_ == v) return;")
                    h.append(f"    {a.name}_ = v;")
                    h.append(f"    notify(&{info}, nullptr);")
                    h.append("  }")
                    init = f" = {a.default}" if a.default else "{}"
                    storage.append(f"  {t} {a.name}_{init};")
                    partial = f"\"{a.partial}\"" if a.partial else "nullptr"
                    if a.json:
                        policies.append((P, [f"using Owner = {d.name};", f"using Value = {t};", f"using Form = {form};",
                                             f"static const {t}& get(const Owner& o) {{ return o.{a.name}_; }}",
                                             f"static void set(Owner& o, const {t}& v) {{ o.{a.name}Is(v); }}"],
                                         f"Kiln::valueAttr<{d.name}::{P}>(\"{a.name}\", {index}, {partial})", info))
                    dispatch.append((index, f"virtual void on{cap(a.name)}() {{}}", f"on{cap(a.name)}()"))
            elif a.kind in ("map", "set"):
                kt = self.cpp(a.type, ns, w)
                kf = self.form(a.type, ns, w)
                partial = f"\"{a.partial}\"" if a.partial else "nullptr"
                if a.kind == "set":
                    ct = self.container(a, kt)
                    h.append(f"  using {cap(a.name)}Type = {ct};")
                    h.append(f"  const {ct}& {a.name}() const {{ return {a.name}_; }}")
                    h.append(f"  bool {a.name}(const {kt}& k) const {{ return {a.name}_.contains(k); }}")
                    h.append(f"  void {a.name}Is(const {kt}& k, bool in = true) {{")
                    h.append(f"    if (!in) {{ {a.name}Del(k); return; }}")
                    h.append(f"    if (!{a.name}_.insert(k).second) return;")
                    h.append(f"    const {kt} key = k;")
                    h.append(f"    notify(&{info}, &key);")
                    h.append("  }")
                    pol = [f"using Owner = {d.name};", f"using Key = {kt};", f"using KeyForm = {kf};",
                           f"using Container = {ct};",
                           f"static const Container& get(const Owner& o) {{ return o.{a.name}_; }}",
                           f"static void set(Owner& o, const Key& k) {{ o.{a.name}Is(k, true); }}",
                           f"static bool del(Owner& o, const Key& k) {{ return o.{a.name}Del(k); }}"]
                    maker = "setAttr"
                else:
                    vt = self.cpp(a.member, ns, w)
                    vf = self.form(a.member, ns, w)
                    ct = self.container(a, kt, vt)
                    h.append(f"  using {cap(a.name)}Type = {ct};")
                    h.append(f"  const {ct}& {a.name}() const {{ return {a.name}_; }}")
                    h.append(f"  {vt} {a.name}(const {kt}& k) const {{")
                    h.append(f"    auto it = {a.name}_.find(k);")
                    h.append(f"    return it == {a.name}_.end() ? {vt}() : it->second;")
                    h.append("  }")
                    h.append(f"  void {a.name}Is(const {kt}& k, const {vt}& v) {{")
                    h.append(f"    auto [it, inserted] = {a.name}_.try_emplace(k, v);")
                    h.append("    if (!inserted) {")
                    h.append("      if (it->second == v) return;")
                    h.append("      it->second = v;")
                    h.append("    }")
                    h.append(f"    const {kt} key = k;")
                    h.append(f"    notify(&{info}, &key);")
                    h.append("  }")
                    pol = [f"using Owner = {d.name};", f"using Key = {kt};", f"using KeyForm = {kf};",
                           f"using Value = {vt};", f"using ValueForm = {vf};", f"using Container = {ct};",
                           f"static const Container& get(const Owner& o) {{ return o.{a.name}_; }}",
                           f"static void set(Owner& o, const Key& k, const Value& v) {{ o.{a.name}Is(k, v); }}",
                           f"static bool del(Owner& o, const Key& k) {{ return o.{a.name}Del(k); }}"]
                    maker = "mapAttr"
                h.append(f"  bool {a.name}Del(const {kt}& k) {{")
                h.append(f"    auto it = {a.name}_.find(k);")
                h.append(f"    if (it == {a.name}_.end()) return false;")
                h.append(f"    const {kt} key = k;")
                h.append(f"    {a.name}_.erase(it);")
                h.append(f"    notify(&{info}, &key);")
                h.append("    return true;")
                h.append("  }")
                first_key = f"*{a.name}_.begin()" if a.kind == "set" else f"{a.name}_.begin()->first"
                h.append(f"  void {a.name}DelAll() {{")
                h.append(f"    while (!{a.name}_.empty()) {a.name}Del({first_key});")
                h.append("  }")
                storage.append(f"  {ct} {a.name}_;")
                if a.json:
                    if kf is None or (a.kind == "map" and vf is None):
                        raise KilnError(f"{w}: a member type has no JSON form; mark the attribute [nojson]")
                    policies.append((P, pol, f"Kiln::{maker}<{d.name}::{P}>(\"{a.name}\", {index}, {partial})", info))
                dispatch.append((index, f"virtual void on{cap(a.name)}(const {kt}&) {{}}",
                                 f"on{cap(a.name)}(*static_cast<const {kt}*>(key))"))
            elif a.kind in ("entityMap", "refMap"):
                kt = self.cpp(a.type, ns, w)
                kf = self.form(a.type, ns, w)
                md = self.entity(a.member, ns, w)
                mt = md.qname
                held = f"const {mt}" if a.member_const else mt
                ct = self.container(a, kt, f"Kiln::Ptr<{held}>")
                h.append(f"  using {cap(a.name)}Type = {ct};")
                h.append(f"  const {ct}& {a.name}() const {{ return {a.name}_; }}")
                h.append(f"  Kiln::Ptr<{held}> {a.name}(const {kt}& k) const {{")
                h.append(f"    auto it = {a.name}_.find(k);")
                h.append(f"    return it == {a.name}_.end() ? nullptr : it->second;")
                h.append("  }")
                if a.kind == "entityMap":
                    mkeys = [x for x in md.attrs if x.is_key]
                    if len(mkeys) != 1:
                        raise KilnError(f"{w}: {mt} must have exactly one key to be created by key")
                    h.append(f"  Kiln::Ptr<{mt}> {a.name}Is(const {kt}& k) {{")
                    h.append(f"    auto it = {a.name}_.find(k);")
                    h.append(f"    if (it != {a.name}_.end()) return it->second;")
                    h.append(f"    Kiln::Ptr<{mt}> m = Kiln::newPtr<{mt}>(k);")
                    h.append("    m->parentIs(this);")
                    h.append(f"    {a.name}_.emplace(k, m);")
                    h.append(f"    const {kt} key = k;")
                    h.append(f"    notify(&{info}, &key);")
                    h.append("    return m;")
                    h.append("  }")
                    pol = [f"using Owner = {d.name};", f"using Key = {kt};", f"using KeyForm = {kf};",
                           f"using Member = {mt};",
                           f"static const {ct}& get(const Owner& o) {{ return o.{a.name}_; }}",
                           f"static Kiln::Ptr<Member> create(Owner& o, const Key& k) {{ return o.{a.name}Is(k); }}",
                           f"static Kiln::Ptr<Member> del(Owner& o, const Key& k) {{ return o.{a.name}Del(k); }}",
                           f"static Kiln::Ptr<Member> makeScratch(const Key& k) {{ return Kiln::newPtr<Member>(k); }}"]
                    maker = f"Kiln::entityMapAttr<{d.name}::{P}>(\"{a.name}\", {index})"
                else:
                    h.append(f"  void {a.name}Is(const {kt}& k, const Kiln::Ptr<{held}>& m) {{")
                    h.append(f"    auto [it, inserted] = {a.name}_.try_emplace(k, m);")
                    h.append("    if (!inserted) {")
                    h.append("      if (it->second == m) return;")
                    h.append("      it->second = m;")
                    h.append("    }")
                    h.append(f"    const {kt} key = k;")
                    h.append(f"    notify(&{info}, &key);")
                    h.append("  }")
                    pol = [f"using Owner = {d.name};", f"using Key = {kt};", f"using KeyForm = {kf};",
                           f"using Member = {mt};",
                           f"static const {ct}& get(const Owner& o) {{ return o.{a.name}_; }}",
                           f"static void set(Owner& o, const Key& k, const Kiln::Ptr<{held}>& m) {{ o.{a.name}Is(k, m); }}",
                           f"static Kiln::Ptr<{held}> del(Owner& o, const Key& k) {{ return o.{a.name}Del(k); }}"]
                    maker = f"Kiln::refMapAttr<{d.name}::{P}>(\"{a.name}\", {index})"
                h.append(f"  Kiln::Ptr<{held}> {a.name}Del(const {kt}& k) {{")
                h.append(f"    auto it = {a.name}_.find(k);")
                h.append(f"    if (it == {a.name}_.end()) return nullptr;")
                h.append(f"    Kiln::Ptr<{held}> m = std::move(it->second);")
                h.append(f"    const {kt} key = k;")
                h.append(f"    {a.name}_.erase(it);")
                if a.kind == "entityMap":
                    h.append("    m->parentIs(nullptr);")
                    h.append("    m->deletedIs(true);")
                h.append(f"    notify(&{info}, &key);")
                h.append("    return m;")
                h.append("  }")
                h.append(f"  void {a.name}DelAll() {{")
                h.append(f"    while (!{a.name}_.empty()) {a.name}Del({a.name}_.begin()->first);")
                h.append("  }")
                storage.append(f"  {ct} {a.name}_;")
                if a.json:
                    if kf is None:
                        raise KilnError(f"{w}: the key type has no JSON form; mark the attribute [nojson]")
                    policies.append((P, pol, maker, info))
                dispatch.append((index, f"virtual void on{cap(a.name)}(const {kt}&) {{}}",
                                 f"on{cap(a.name)}(*static_cast<const {kt}*>(key))"))
            elif a.kind == "child":
                md = self.entity(a.member, ns, w)
                mt = md.qname
                if any(x.is_key for x in md.attrs):
                    raise KilnError(f"{w}: a child entity is made by name and cannot have keys")
                h.append(f"  const Kiln::Ptr<{mt}>& {a.name}() const {{ return {a.name}_; }}")
                h.append(f"  Kiln::Ptr<{mt}> {a.name}Is(const Kiln::Name& name) {{")
                h.append(f"    if ({a.name}_ && {a.name}_->name() == name) return {a.name}_;")
                h.append(f"    Kiln::Ptr<{mt}> m = Kiln::newPtr<{mt}>(name);")
                h.append("    m->parentIs(this);")
                h.append(f"    if (auto old = std::exchange({a.name}_, m)) old->deletedIs(true);")
                h.append(f"    notify(&{info}, nullptr);")
                h.append("    return m;")
                h.append("  }")
                h.append(f"  void {a.name}Del() {{")
                h.append(f"    if (!{a.name}_) return;")
                std_ex = f"std::exchange({a.name}_, nullptr)"
                h.append(f"    {std_ex}->deletedIs(true);")
                h.append(f"    notify(&{info}, nullptr);")
                h.append("  }")
                storage.append(f"  Kiln::Ptr<{mt}> {a.name}_;")
                if a.json:
                    policies.append((P, [f"using Owner = {d.name};", f"using Member = {mt};",
                                         f"static constexpr const char* name = \"{a.name}\";",
                                         f"static const Kiln::Ptr<Member>& get(const Owner& o) {{ return o.{a.name}_; }}",
                                         f"static Kiln::Ptr<Member> create(Owner& o) {{ return o.{a.name}Is(Kiln::Name(\"{a.name}\")); }}",
                                         f"static void del(Owner& o) {{ o.{a.name}Del(); }}",
                                         f"static Kiln::Ptr<Member> makeScratch() {{ return Kiln::newPtr<Member>(Kiln::Name(\"{a.name}\")); }}"],
                                     f"Kiln::childAttr<{d.name}::{P}>(\"{a.name}\", {index})", info))
                dispatch.append((index, f"virtual void on{cap(a.name)}() {{}}", f"on{cap(a.name)}()"))
            a.index = index
            a.info = info
            index += 1
        h.append("")
        for a in d.attrs:
            if not a.inherited:
                h.append(f"  static const Kiln::AttrInfo {a.name}Attr_;")
        if d.code:
            h.append("")
            h.append("  " + d.code.replace("\n", "\n  "))
        h.append("")
        h.append(" private:")
        h.append("  static const Kiln::AttrInfo* const attrs_[];")
        for P, lines, _, _ in policies:
            h.append(f"  struct {P} {{")
            for line in lines:
                h.append(f"    {line}")
            h.append("  };")
        h.extend(storage)
        h.append("};")
        h.append("")
        # The reactor base of this type.
        h.append(f"class {d.name}::NotifieeConst : public {base}::NotifieeConst {{")
        h.append(" public:")
        h.append(f"  Kiln::Ptr<const {d.name}> notifier() const {{")
        h.append(f"    return Kiln::Ptr<const {d.name}>(static_cast<const {d.name}*>(notifierBase().get()));")
        h.append("  }")
        h.append(f"  void notifierIs(const Kiln::Ptr<const {d.name}>& n) {{ Kiln::PtrInterface::NotifieeConst::notifierIs(n); }}")
        for _, decl, _ in dispatch:
            h.append(f"  {decl}")
        h.append("  void onNotification(const Kiln::AttrInfo* attr, const void* key) override;")
        h.append("};")
        h.append("")

        # Source: reflection records and dispatch.
        json_attrs = [a for a in d.attrs if not a.inherited]
        for P, _, maker, info in policies:
            c.append(f"const Kiln::AttrInfo {d.name}::{info} = {maker};")
        for a in json_attrs:
            if not a.json:
                c.append(f"const Kiln::AttrInfo {d.name}::{a.name}Attr_{{\"{a.name}\", Kiln::AttrKind::value, &{d.name}::typeInfo_, {a.index}, nullptr, false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}};")
        listed = ", ".join(f"&{d.name}::{a.name}Attr_" for a in json_attrs)
        c.append(f"const Kiln::AttrInfo* const {d.name}::attrs_[] = {{{listed}{', ' if listed else ''}nullptr}};")
        if keys:
            create = "nullptr"
            scratch_args = ", ".join(f"e.{a.name}()" for a in keys)
            scratch = f"[](const Kiln::Entity& like) -> Kiln::Ptr<Kiln::Entity> {{ const auto& e = static_cast<const {d.name}&>(like); return Kiln::newPtr<{d.name}>({scratch_args}); }}"
        else:
            create = f"[](const Kiln::Name& name) -> Kiln::Ptr<Kiln::Entity> {{ return Kiln::newPtr<{d.name}>(name); }}"
            scratch = f"[](const Kiln::Entity& like) -> Kiln::Ptr<Kiln::Entity> {{ return Kiln::newPtr<{d.name}>(like.name()); }}"
        n = len(json_attrs)
        c.append(f"const Kiln::TypeInfo {d.name}::typeInfo_{{\"{d.qname}\", &{base}::typeInfo_, "
                 f"std::span<const Kiln::AttrInfo* const>({d.name}::attrs_, {n}), {create}, {scratch}}};")
        c.append(f"static const Kiln::TypeRegistration {d.name}Registration({d.name}::typeInfo_);")
        c.append(f"void {d.name}::NotifieeConst::onNotification(const Kiln::AttrInfo* attr, const void* key) {{")
        if dispatch:
            c.append(f"  if (attr->owner != &{d.name}::typeInfo_) {{")
            c.append(f"    {base}::NotifieeConst::onNotification(attr, key);")
            c.append("    return;")
            c.append("  }")
            c.append("  switch (attr->index) {")
            for i, _, call in dispatch:
                c.append(f"    case {i}: {call}; return;")
            c.append("    default: return;")
            c.append("  }")
        else:
            c.append(f"  {base}::NotifieeConst::onNotification(attr, key);")
        c.append("}")
        c.append("")

    # ---- files ------------------------------------------------------------------------

    def generate(self, header_name):
        h, c = [], []
        guard_includes = ["<cstdint>", "<map>", "<ostream>", "<set>", "<string>", "<string_view>",
                          "<tuple>", "<unordered_map>", "<unordered_set>", "<utility>",
                          "\"Kiln/Attr.h\""]
        for inc in self.unit.includes:
            guard_includes.append(f"\"{inc}\"")
        for imp in self.unit.imports:
            guard_includes.append(f"\"{os.path.splitext(imp)[0]}.h\"")
        for d in self.unit.decls:
            if d.kind == "extern" and d.header:
                guard_includes.append(f"\"{d.header}\"")
        seen = []
        for inc in guard_includes:
            if inc not in seen:
                seen.append(inc)
        out_h = [f"// Generated by kilngen from {self.unit.include_name}. Do not edit.", "#pragma once", ""]
        out_h += [f"#include {inc}" for inc in seen]
        out_h.append("")
        out_c = [f"// Generated by kilngen from {self.unit.include_name}. Do not edit.",
                 f"#include \"{header_name}\"", "", "#include \"RingTape/Args.h\"", ""]
        # Values stream themselves into traces (RingTape/Args.h).
        out_h += ["namespace RingTape {", "class Args;", "}  // namespace RingTape", ""]
        # Forward declarations so entities can refer to each other in any order.
        current = None
        body_h, body_c = [], []
        for d in self.unit.decls:
            if d.kind == "extern":
                continue
            if d.namespace != current:
                if current is not None:
                    body_h.append(f"}}  // namespace {current}")
                    body_c.append(f"}}  // namespace {current}")
                body_h.append(f"namespace {d.namespace} {{")
                body_c.append(f"namespace {d.namespace} {{")
                current = d.namespace
            if d.kind == "enum":
                self.gen_enum(d, body_h, body_c)
            elif d.kind == "value":
                self.gen_value(d, body_h, body_c)
            else:
                self.gen_entity(d, body_h, body_c)
        if current is not None:
            body_h.append(f"}}  // namespace {current}")
            body_c.append(f"}}  // namespace {current}")
        fwd = {}
        for d in self.unit.decls:
            if d.kind == "entity":
                fwd.setdefault(d.namespace, []).append(d.name)
        for ns, names in fwd.items():
            out_h.append(f"namespace {ns} {{")
            out_h += [f"class {n};" for n in names]
            out_h.append(f"}}  // namespace {ns}")
        out_h.append("")
        out_h += body_h
        hashes = [d for d in self.unit.decls if d.kind == "value"]
        if hashes:
            out_h.append("")
            for d in hashes:
                out_h.append(f"template <> struct std::hash<{d.qname}> {{")
                out_h.append(f"  std::size_t operator()(const {d.qname}& v) const noexcept {{ return v.hash(); }}")
                out_h.append("};")
        out_c += body_c
        return "\n".join(out_h) + "\n", "\n".join(out_c) + "\n"


def cap(name):
    return name[0].upper() + name[1:]


def write_if_changed(path, text):
    if os.path.exists(path):
        with open(path) as f:
            if f.read() == text:
                return
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    with open(path, "w") as f:
        f.write(text)


def main(argv):
    ap = argparse.ArgumentParser(description="Generate C++ from a .kiln declaration.")
    ap.add_argument("input", help="the .kiln file")
    ap.add_argument("--name", required=True, help="its include name, e.g. entities/OverlaySvc.kiln")
    ap.add_argument("--out", required=True, help="output directory root (include root of generated files)")
    ap.add_argument("-I", dest="search", action="append", default=[], help="where imports are found")
    args = ap.parse_args(argv)
    try:
        universe = Universe(args.search)
        unit = universe.load(args.name, args.input)
        stem = os.path.splitext(args.name)[0]
        header, source = Gen(universe, unit).generate(stem + ".h")
    except KilnError as e:
        print(f"kilngen: {e}", file=sys.stderr)
        return 1
    write_if_changed(os.path.join(args.out, stem + ".h"), header)
    write_if_changed(os.path.join(args.out, stem + ".cpp"), source)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
