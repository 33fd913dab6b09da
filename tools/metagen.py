#!/usr/bin/env python3
"""Writes the C++ classes of a metamodel from its tables.

Each class of the tables becomes a handle `X` and an implementation `X::Impl` in the
generated pattern: one member per indexed property, property index constants, typed
getters and setters that go through the shared setter frames, reflective access, the
association protocol, destruction of owned children, and `create`. Tables that start with
a `package` line also get a description class that enters the package, its classes and
their properties into the registry at first use.

    tools/metagen.py                      kivra's own metamodel
    tools/metagen.py --check              exit 1 when a generated file is missing or stale
    tools/metagen.py --tables T --namespace N --headers DIR --sources DIR --include-prefix P

Hand-written additions to a generated class go in `<headers>/detail/<X>Extra.inc`
(declarations inside `X::Impl`) and are defined in hand-written sources; the generator
includes the file when it exists.
"""

import argparse
import re
import sys
import uuid as uuidlib
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
# Name-based identities of properties: they must never change between releases.
UUID_NAMESPACE = uuidlib.uuid3(uuidlib.NAMESPACE_URL, "http://schema.kivra.org/kivra/")

# Primitive types of the tables: native type, whether passed by reference.
PRIMITIVES = {
    "String": ("basalt::ustring", True),
    "StdString": ("std::string", True),
    "Boolean": ("bool", False),
    "Integer": ("std::int32_t", False),
    "Integer8": ("std::int8_t", False),
    "Integer16": ("std::int16_t", False),
    "Integer64": ("std::int64_t", False),
    "UnlimitedNatural": ("std::uint32_t", False),
    "UInteger8": ("std::uint8_t", False),
    "UInteger16": ("std::uint16_t", False),
    "UInteger64": ("std::uint64_t", False),
    "Real": ("double", False),
    "UUID": ("boost::uuids::uuid", True),
    "DateTime": ("boost::posix_time::ptime", True),
}
ZERO = {"Boolean": "false", "Real": "0.0"}
COLLECTION_SHAPES = {"Sequence", "SortedSet", "HashSet", "Map", "HashMap", "Multimap", "HashMultimap"}
META = "::kivra::meta"
COLLECTION_KINDS = ("sequence", "set", "map", "multimap")
KEYED_SHAPES = {"Map": ("map", "ElementMap"), "HashMap": ("map", "UnorderedElementMap"),
                "Multimap": ("multimap", "ElementMultimap"), "HashMultimap": ("multimap", "UnorderedElementMultimap")}
TAG = "::kivra::ModelElement::Impl::ReflectionPrivateTag"
# Data types that kivra provides to every metamodel as entries of multi-valued properties.
BUILTIN_DATATYPES = {"VersionInfo": "::kivra::meta::VersionInfo"}
# A single-valued property of this type holds a map of texts that its element owns.
STRING_MAP = "StringToStringMap"
# The kinds of properties whose member is a collection of values made on first use.
VALUE_KINDS = ("values", "stringmap")
# The kinds of properties whose member a query may read where it lies.
IN_PLACE_KINDS = ("value", "sequence", "set")


@dataclass
class Prop:
    index: int  # 0 for derived properties
    name: str
    type: str
    shape: str
    composite: bool = False
    opposite: str = ""
    qualified_by: str = ""
    default: str = ""
    notes: set = field(default_factory=set)
    owner: str = ""

    @property
    def cap(self):
        return self.name[0].upper() + self.name[1:]


@dataclass
class MetaClass:
    name: str
    superclass: str
    uuid: str
    abstract: bool
    datatype: bool
    props: list = field(default_factory=list)
    ops: list = field(default_factory=list)


@dataclass
class Op:
    """An operation of a class: its arguments are (name, type, ordered, many)."""
    name: str
    args: list
    result: str = ""
    many: bool = False
    abstract: bool = False
    public: bool = True


@dataclass
class Package:
    name: str = ""
    uri: str = ""


class TablesError(Exception):
    """A fault in a tables file, with the line that has it."""

    def __init__(self, path, line, message):
        super().__init__(f"{path}:{line}: error: {message}")


SHAPES = {"Single", "Optional"} | COLLECTION_SHAPES
FLAGS = {"composite", "derived", "readOnly", "transient", "sparse", "noPublicAccessor", "noPublicMutator", "nonUnique"}


@dataclass
class EnumType:
    name: str
    uuid: str
    literals: list = field(default_factory=list)  # (name, value, public identifier or "")


# The enumerations of the tables being written, by name; filled by `parse`.
ENUMS = {}


def parse(path):
    classes, package, current = {}, None, None
    ENUMS.clear()
    current_enum = None
    lines = {}  # property or class -> line number, for the checks after reading
    for number, raw in enumerate(path.read_text().splitlines(), 1):
        line = raw.split("#", 1)[0].rstrip()
        if not line.strip():
            continue
        words = line.split()

        def fail(message):
            raise TablesError(path, number, message)

        if words[0] == "package":
            uri = re.search(r'uri="([^"]*)"', line)
            if len(words) < 3 or not uri or not re.fullmatch(r"[A-Za-z_]\w*", words[1]):
                fail("expected 'package name uri=\"...\"'")
            package = Package(words[1], uri.group(1))
        elif words[0] == "enum":
            if len(words) < 3:
                fail("expected 'enum Name uuid'")
            try:
                uuidlib.UUID(words[2])
            except ValueError:
                fail(f"'{words[2]}' is not a UUID")
            current_enum, current = EnumType(words[1], words[2]), None
            ENUMS[words[1]] = current_enum
        elif current_enum is not None and raw[:1].isspace():
            ident = re.search(r'id="([^"]*)"', line)
            if len(words) < 2 or not re.fullmatch(r"-?\d+", words[1]) or not re.fullmatch(r"[A-Za-z_]\w*", words[0]):
                fail("expected 'Literal value [id=\"publicIdentifier\"]'")
            current_enum.literals.append((words[0], int(words[1]), ident.group(1) if ident else ""))
        elif words[0] in ("class", "datatype"):
            current_enum = None
            datatype = words[0] == "datatype"
            if datatype:
                if len(words) < 3:
                    fail("expected 'datatype Name uuid'")
                name, superclass, rest = words[1], "", words[2:]
            else:
                if len(words) < 5 or words[2] != ":":
                    fail("expected 'class Name : Superclass uuid [abstract]'")
                name, superclass, rest = words[1], words[3], words[4:]
            try:
                uuidlib.UUID(rest[0])
            except ValueError:
                fail(f"'{rest[0]}' is not a UUID")
            if name in classes:
                fail(f"class '{name}' is described twice")
            current = MetaClass(name, superclass, rest[0], "abstract" in rest[1:], datatype)
            classes[name] = current
            lines[id(current)] = number
        elif words[0] == "operations":
            if current is None:
                fail("operations outside a class")
            try:
                current.ops += parse_operations(line.split(None, 1)[1] if len(words) > 1 else "")
            except ValueError as error:
                fail(str(error))
        else:
            if current is None:
                fail("property outside a class")
            if len(words) < 4:
                fail("expected 'index name Type Shape [options]'")
            if words[0] != "-" and not words[0].isdigit():
                fail(f"'{words[0]}' is not a property index (a number, or - for a derived property)")
            if words[3] not in SHAPES:
                fail(f"unknown shape '{words[3]}' (one of {', '.join(sorted(SHAPES))})")
            prop = Prop(0 if words[0] == "-" else int(words[0]), words[1], words[2], words[3], owner=current.name)
            for word in re.findall(r'\S+="[^"]*"|\S+', " ".join(words[4:])):
                if word == "composite":
                    prop.composite = True
                elif word.startswith("opposite="):
                    prop.opposite = word.split("=", 1)[1]
                elif word.startswith("qualifiedBy="):
                    prop.qualified_by = word.split("=", 1)[1]
                elif word.startswith("default="):
                    prop.default = word.split("=", 1)[1].strip('"')
                elif word in FLAGS:
                    prop.notes.add(word)
                else:
                    fail(f"unknown option '{word}'")
            current.props.append(prop)
            lines[id(prop)] = number
    # What can only be checked once every class is read.
    known = set(PRIMITIVES) | set(classes) | set(ENUMS) | set(BUILTIN_DATATYPES) | {"ModelElement", STRING_MAP}
    for enum in ENUMS.values():
        if not enum.literals:
            raise TablesError(path, "?", f"enum '{enum.name}' has no literals")
    for cls in classes.values():
        for prop in cls.props if cls.datatype else ():
            if problem := datatype_field_fault(prop):
                raise TablesError(path, lines[id(prop)], problem)
        if cls.superclass and cls.superclass not in classes and cls.superclass != "ModelElement":
            raise TablesError(path, lines[id(cls)], f"unknown superclass '{cls.superclass}'")
        for prop in cls.props:
            where = lines[id(prop)]
            if prop.type not in known and not (package is None):
                raise TablesError(path, where, f"unknown type '{prop.type}'")
            if prop.type in ENUMS and prop.default and prop.default not in [l[0] for l in ENUMS[prop.type].literals]:
                raise TablesError(path, where, f"'{prop.default}' is no literal of '{prop.type}'")
            if prop.index and (problem := value_collection_fault(prop, classes)):
                raise TablesError(path, where, problem)
            if prop.type == "DateTime" and prop.default and prop.default != "now":
                raise TablesError(path, where, f"a DateTime default is \"now\", not '{prop.default}'")
            if prop.type == "UUID" and prop.default and prop.default != "random":
                try:
                    uuidlib.UUID(prop.default)
                except ValueError:
                    raise TablesError(path, where, f"a UUID default is \"random\" or a UUID, not '{prop.default}'")
            if prop.opposite and prop.type in classes:
                far = next((q for c in _chain(classes, classes[prop.type]) for q in c.props if q.name == prop.opposite), None)
                if far is None:
                    raise TablesError(path, where, f"'{prop.type}' has no property '{prop.opposite}' to be the opposite")
    return classes, package


def entry_type(prop, classes):
    """The native type of the entries of a property of values: a primitive type, or a data
    type that kivra provides; None for elements, enumerations and the data types of the tables."""
    if prop.type in PRIMITIVES:
        return PRIMITIVES[prop.type][0]
    if prop.type in BUILTIN_DATATYPES and (prop.type not in classes or classes[prop.type].datatype):
        return BUILTIN_DATATYPES[prop.type]
    return None


def value_collection_type(prop, classes):
    """The collection that holds a multi-valued property of values: a sequence, a sorted or
    hashed set, or the map of `VersionInfo` keyed by family; None when there is none."""
    entry = entry_type(prop, classes)
    if entry is None or prop.shape not in COLLECTION_SHAPES:
        return None
    if prop.shape == "Sequence":
        return f"::kivra::PrimitiveSequence<{entry}>"
    if prop.type in PRIMITIVES and prop.shape == "HashSet":
        return f"::kivra::UnorderedPrimitiveSet<{entry}>"
    if prop.type in PRIMITIVES and prop.shape == "SortedSet":
        return f"::kivra::PrimitiveSet<{entry}>"
    if prop.type == "VersionInfo" and prop.shape in ("Map", "HashMap") and prop.qualified_by == "family":
        return f"::kivra::PrimitiveMap<::basalt::ustring, {entry}>"
    return None


def value_collection_fault(prop, classes):
    """Why a property of values cannot have the shape the tables give it; None when it can."""
    if prop.type == STRING_MAP:
        return None if prop.shape == "Single" else f"a {STRING_MAP} property is Single: it is a map itself"
    if prop.shape not in COLLECTION_SHAPES:
        return None
    if prop.type in ENUMS:
        return f"'{prop.name}': collections of enumeration literals are not supported"
    if entry_type(prop, classes) is not None and value_collection_type(prop, classes) is None:
        shapes = "Sequence, or Map qualifiedBy=family" if prop.type in BUILTIN_DATATYPES else "Sequence, SortedSet or HashSet"
        return f"'{prop.name}': no collection of {prop.type} has the shape {prop.shape} ({shapes})"
    return None


def _split_top(text, separator):
    """`text` split at each `separator` outside parentheses."""
    parts, depth, start = [], 0, 0
    for i, ch in enumerate(text):
        depth += ch == "("
        depth -= ch == ")"
        if depth == 0 and text.startswith(separator, i):
            parts.append(text[start:i])
            start = i + len(separator)
    parts.append(text[start:])
    return [part.strip() for part in parts if part.strip()]


def parse_operations(text):
    """Signatures such as "`at`(key: String) to `Attribute` (any number); `erase`(key: String)."""
    ops = []
    for signature in _split_top(text.strip().rstrip("."), ";"):
        head = re.match(r"`(\w+)`\(", signature)
        if not head:
            raise ValueError(f"expected '`name`(arguments)' in '{signature}'")
        depth, end = 0, head.end() - 1
        for end in range(head.end() - 1, len(signature)):
            depth += signature[end] == "("
            depth -= signature[end] == ")"
            if depth == 0:
                break
        if depth:
            raise ValueError(f"unbalanced parentheses in '{signature}'")
        op = Op(head.group(1), [])
        for arg in _split_top(signature[head.end():end], ","):
            match = re.fullmatch(r"(\w+): (\w+)(?: \(([^)]*)\))?", arg)
            if not match:
                raise ValueError(f"expected 'name: Type [(notes)]' for an argument, not '{arg}'")
            notes = match.group(3) or ""
            op.args.append((match.group(1), match.group(2), "ordered" in notes, "any number" in notes))
        rest = signature[end + 1:].strip()
        result = re.match(r"to `(\w+)`", rest)
        if result:
            op.result, rest = result.group(1), rest[result.end():].strip()
        notes = re.fullmatch(r"(?:\(([^)]*)\))?", rest)
        if notes is None:
            raise ValueError(f"unexpected '{rest}' after an operation")
        notes = notes.group(1) or ""
        op.many, op.abstract, op.public = "any number" in notes, "abstract" in notes, "not public" not in notes
        ops.append(op)
    return ops


def _chain(classes, cls):
    while cls is not None:
        yield cls
        cls = classes.get(cls.superclass)


class Metamodel:
    def __init__(self, classes, package, namespace, include_prefix, tables_name, keyed=True):
        self.classes = classes
        self.keyed = keyed
        self.package = package
        self.ns = namespace
        self.prefix = include_prefix
        self.tables_name = tables_name
        # kivra's own package is `meta` under `kivra`: its names keep the whole path.
        self.dotted = package.name if package and namespace != "kivra::meta" else namespace.replace("::", ".")
        self.banner = f"// Generated by tools/metagen.py from {tables_name}; do not edit.\n"

    def chain(self, cls):
        while cls is not None:
            yield cls
            cls = self.classes.get(cls.superclass)

    def find_property(self, class_name, prop_name):
        for cls in self.chain(self.classes.get(class_name)):
            for prop in cls.props:
                if prop.name == prop_name:
                    return prop
        return None

    def opposite_of(self, prop):
        return self.find_property(prop.type, prop.opposite) if prop.opposite else None

    def collection_kind(self, prop):
        """sequence, set, map or multimap for a multi-valued element property; None for what
        is not written yet (collections of values or data types)."""
        target = self.classes.get(prop.type)
        if prop.index == 0 or target is None or target.datatype:
            return None
        if prop.shape in KEYED_SHAPES:
            return KEYED_SHAPES[prop.shape][0] if self.keyed and self.key_type(prop) else None
        if prop.shape == "Sequence":
            return "sequence"
        if prop.shape in ("HashSet", "SortedSet"):
            return "set"
        return None

    def kind(self, prop):
        """How a property is held: value, optional, reference, composite, container-end,
        sequence, set, map, multimap, values (a collection of values), stringmap, or None
        for what is not written (derived properties, data types of the tables)."""
        if prop.index == 0:
            return None
        if prop.type == STRING_MAP and prop.shape == "Single":
            return "stringmap"
        if prop.shape in COLLECTION_SHAPES:
            if value_collection_type(prop, self.classes):
                return "values"
            return self.collection_kind(prop)
        if prop.type in PRIMITIVES:
            return "value" if prop.shape == "Single" else "optional"
        if prop.type in ENUMS:
            return "value" if prop.shape == "Single" else None
        target = self.classes.get(prop.type)
        if target is None or target.datatype or prop.shape != "Single":
            return None
        if prop.composite:
            return "composite"
        far = self.opposite_of(prop)
        if far is not None and far.composite:
            return "container-end"
        if far is not None and (far.index == 0 or (far.shape in COLLECTION_SHAPES and self.collection_kind(far) is None)):
            return None  # the far end is a keyed container, which arrives later
        return "reference"

    def key_type(self, prop):
        """The native type of the keys of a qualified property; None when not written yet."""
        key = self.find_property(prop.type, prop.qualified_by) if prop.qualified_by else None
        if key is None or key.shape != "Single":
            return None
        if key.type in PRIMITIVES and key.type not in ("Boolean", "DateTime"):
            return PRIMITIVES[key.type][0]
        return None

    def key_holders(self, key):
        """The keyed properties that the value property `key` qualifies, each with the far
        end on the key's class that finds their owners (None: the owner is the container)."""
        holders = []
        for cls in self.classes.values():
            for q in cls.props:
                if q.qualified_by != key.name or self.kind(q) not in ("map", "multimap"):
                    continue
                if self.find_property(q.type, key.name) is not key:
                    continue
                far = self.opposite_of(q)
                if far is not None or q.composite:
                    holders.append((q, far))
        return holders

    def settable_container_end(self, prop):
        far = self.opposite_of(prop)
        return far is not None and self.kind(far) in ("composite",) + COLLECTION_KINDS

    def unique(self, prop):
        """Sequences are unique unless the tables say otherwise."""
        return "nonUnique" not in prop.notes

    def property_count(self, cls):
        return max([p.index for c in self.chain(cls) for p in c.props] + [0])

    def first_index(self, cls):
        base = self.classes.get(cls.superclass)
        return (self.property_count(base) if base else 0) + 1

    def order(self):
        done, result = set(), []

        def visit(cls):
            if cls.name in done:
                return
            if cls.superclass in self.classes:
                visit(self.classes[cls.superclass])
            done.add(cls.name)
            result.append(cls)

        for cls in self.classes.values():
            if not cls.datatype:
                visit(cls)
        return result

    def property_uuid(self, prop):
        return str(uuidlib.uuid3(UUID_NAMESPACE, f"{self.dotted}.{prop.owner}.{prop.name}"))

    def header(self, name):
        return f"{self.prefix}/{name}.hpp"

    def handle_base(self, cls):
        return "::kivra::ModelElement" if cls.superclass == "ModelElement" else cls.superclass

    def impl_base(self, cls):
        return "::kivra::ModelElement::Impl" if cls.superclass == "ModelElement" else f"{cls.superclass}::Impl"

    def described(self):
        return self.package is not None


def collection_type(kind, prop, mm=None):
    if kind in ("map", "multimap"):
        return f"::kivra::{KEYED_SHAPES[prop.shape][1]}<{mm.key_type(prop)}, {prop.type}>"
    template = "ElementSequence" if kind == "sequence" else "UnorderedElementSet"
    return f"::kivra::{template}<{prop.type}>"


def values_type(mm, prop):
    """The collection class of a property of kind values or stringmap."""
    return "::kivra::StringToStringMap" if prop.type == STRING_MAP else value_collection_type(prop, mm.classes)


def values_args(mm, prop, owned):
    """The constructor arguments of such a collection: owned by the element (inside its
    `Impl`, `self` the element), or free-standing, as a change record keeps it."""
    ctype = values_type(mm, prop)
    owner = f"_privateTag(), self, {prop.name}Property().get()"
    if "PrimitiveSequence" in ctype:
        unique = str(mm.unique(prop)).lower()
        return f"{owner}, {unique}" if owned else unique
    if "PrimitiveMap" in ctype:
        key = "[](::kivra::meta::VersionInfo const &entry) { return entry.getFamily(); }"
        return f"{key}, {owner}" if owned else key
    return owner if owned else ""


def holds_values(mm, cls):
    """Whether the class has members that are collections of values: their classes are only
    declared in its header, so that what includes it does not pay for their definitions."""
    return any(mm.kind(p) in VALUE_KINDS for p in cls.props)


def native(prop):
    return prop.type if prop.type in ENUMS else PRIMITIVES[prop.type][0]


def is_enum(prop):
    return prop.type in ENUMS


def to_value(prop, member):
    """A `Value` of a member: enum literals travel as their number, sign-extended."""
    if is_enum(prop):
        return f"::kivra::Value(property->getType(), static_cast<std::uint64_t>(static_cast<std::int64_t>({member})))"
    return f"::kivra::Value({member})"


def from_value(prop, value):
    if is_enum(prop):
        return f"static_cast<{prop.type}>(static_cast<std::int64_t>({value}.get<std::uint64_t>()))"
    return f"{value}.get<{native(prop)}>()"


def param(prop):
    if is_enum(prop):
        return f"{prop.type} "
    cpp, by_ref = PRIMITIVES[prop.type]
    return f"{cpp} const &" if by_ref else f"{cpp} "


def initial(prop):
    if is_enum(prop):
        return "{" + f"{prop.type}::{prop.default or ENUMS[prop.type].literals[0][0]}" + "}"
    if prop.type not in PRIMITIVES or prop.shape != "Single":
        return "{}"
    if prop.default:
        if prop.type == "String":
            return '{u"' + prop.default + '"}'
        if prop.type == "StdString":
            return '{"' + prop.default + '"}'
        if prop.type == "UUID":
            return "{::kivra::detail::randomDefaultUuid()}" if prop.default == "random" else \
                '{::kivra::parseUuidLiteral("' + prop.default + '")}'
        if prop.type == "DateTime":
            return "{::kivra::detail::currentLocalTime()}"
        return "{" + prop.default + "}"
    return "{" + ZERO.get(prop.type, "0" if prop.type not in ("String", "StdString", "UUID", "DateTime") else "") + "}"


def storage_members(mm, cls):
    return [(p, mm.kind(p)) for p in cls.props
            if mm.kind(p) in ("value", "optional", "reference", "composite") + COLLECTION_KINDS + VALUE_KINDS]


def plain_members(mm, cls):
    return [(p, k) for p, k in storage_members(mm, cls) if k in ("value", "optional")]


def container_ends(mm, cls):
    return [p for p in cls.props if mm.kind(p) == "container-end"]


def own_storage(mm, cls):
    """Whether the class needs a storage of its own: for shadow members, or to give the old
    values of its container ends."""
    return bool(storage_members(mm, cls) or container_ends(mm, cls))


def write_records(mm, cls, base):
    own = storage_members(mm, cls)
    ends = container_ends(mm, cls)
    def copy(p, k):
        if k in COLLECTION_KINDS:
            return f"::kivra::detail::cloneCollection({p.name}_.get())"
        if k in VALUE_KINDS:
            return f"{p.name}_ ? {p.name}_->cloneFreeStanding() : nullptr"
        return f"{p.name}_"

    cases = "".join(f"    case {p.name}Index:\n        own->{p.name}_ = {copy(p, k)};\n        return;\n" for p, k in own)
    cases += "".join(f"    case {p.name}Index:\n        storage->setOldContainer(container(), containmentFeature());\n        return;\n" for p in ends)
    cast = f"    [[maybe_unused]] auto *own = static_cast<Storage *>(storage);\n" if own else ""
    def restore_of(p, k):
        if k in COLLECTION_KINDS:
            return f"    if (own->isChanged({p.name}Index))\n        ::kivra::detail::restoreCollection(ensure{p.cap}(), own->{p.name}_.get());\n"
        if k in VALUE_KINDS:
            # Never made then and never made since: nothing to put back.
            return f"    if (own->isChanged({p.name}Index) && ({p.name}_ || own->{p.name}_))\n        ensure{p.cap}().restoreFrom(own->{p.name}_.get());\n"
        return f"    if (own->isChanged({p.name}Index))\n        {p.name}_ = own->{p.name}_;\n"

    restore = "".join(restore_of(p, k) for p, k in own)
    out = f"""
::kivra::ModelElement::Impl::Changes *{cls.name}::Impl::createChanges() const {{
    return new ::kivra::ModelElement::Impl::Changes(getUuid(), getModelImpl(), getMetaClass(), propertyCount);
}}

::kivra::ModelElement::Impl::Storage *{cls.name}::Impl::createStorage() const {{
    return new Storage(getUuid(), getModelImpl(), getMetaClass(), propertyCount + 1);
}}

void {cls.name}::Impl::copyValue(::kivra::ModelElement::Impl::Storage *storage, std::uint64_t index) const {{
{cast}    switch (index) {{
{cases}    default:
        {base}::copyValue(storage, index);
    }}
}}

void {cls.name}::Impl::copyStateFromStorage(::kivra::ModelElement::Impl::Storage *storage) {{
{cast}{restore}    {base}::copyStateFromStorage(storage);
}}
"""
    if not own_storage(mm, cls):
        return out
    plain = plain_members(mm, cls)
    revert = "".join(f"    if (isChanged(Impl::{p.name}Index) && {p.name}_ == self->{p.name}_)\n        clearModified(Impl::{p.name}Index);\n" for p, _ in plain)
    old = []
    for p, k in own:
        guard = f"property == Impl::{p.name}Property() && isChanged(Impl::{p.name}Index){visible(p, False)}"
        if k == "value":
            old.append(f"    if ({guard})\n        return {to_value(p, p.name + '_') if is_enum(p) else f'::kivra::Value(property->getType(), {p.name}_)'};\n")
        elif k == "optional":
            old.append(f"    if ({guard})\n        return ::kivra::Value(property->getType(), {p.name}_, false);\n")
        elif k in COLLECTION_KINDS:
            old.append(f"    if ({guard})\n        return ::kivra::detail::oldCollectionValue({p.name}_, property);\n")
        elif k in VALUE_KINDS:
            # A collection never made before the change was empty.
            view = f"{p.name}_->toValue()" if k == "stringmap" else f"::kivra::Value(*{p.name}_, property)"
            old.append(f"""    if ({guard}) {{
        if (!{p.name}_)
            {p.name}_.reset(new (nullptr) {values_type(mm, p)}({values_args(mm, p, False)}));
        return {view};
    }}
""")
        else:
            old.append(f"    if ({guard})\n        return ::kivra::Value(property->getType(), ::kivra::ModelElement({p.name}_));\n")
    for p in ends:
        # The end read the container only while it held the element by this composite.
        guard = f"property == Impl::{p.name}Property() && isChanged(Impl::{p.name}Index){visible(p, False)}"
        old.append(f"    if ({guard})\n        return ::kivra::Value(property->getType(), getOldContainerBy({p.type}::Impl::{p.opposite}Property()));\n")
    if plain:
        out += f"""
bool {cls.name}::Impl::Storage::revertUnchanged(::kivra::ModelElement::Impl *element) {{
    [[maybe_unused]] auto const *self = static_cast<{cls.name}::Impl const *>(element);
{revert}    return {base}::Storage::revertUnchanged(element);
}}
"""
    out += f"""
::kivra::Value {cls.name}::Impl::Storage::getOldValue({META}::Property const &property, {TAG} const &tag) const {{
    if (!property.get())
        return {base}::Storage::getOldValue(property, tag);
{"".join(old)}    return {base}::Storage::getOldValue(property, tag);
}}
"""
    return out


def staged(mm, cls):
    """The properties a builder level stages, with their kinds: plain values go to the
    element's constructor, references through its typed setters, children are made after."""
    out = []
    for p in cls.props:
        k = mm.kind(p)
        if k in ("value", "optional", "reference", "composite", "values") + COLLECTION_KINDS:
            out.append((p, k))
        elif k == "container-end" and mm.settable_container_end(p):
            out.append((p, k))
    return out


def value_entry(p):
    """The native entry type of a property of kind values."""
    return PRIMITIVES[p.type][0] if p.type in PRIMITIVES else BUILTIN_DATATYPES[p.type]


def staged_type(p, k):
    if k == "values":
        return f"std::vector<{value_entry(p)}>"
    if k == "value":
        return native(p)
    if k == "optional":
        return f"boost::optional<{native(p)}>"
    if k == "composite":
        return "std::unique_ptr<::kivra::ModelElement::Builder>"
    if k in COLLECTION_KINDS:
        return "std::vector<std::unique_ptr<::kivra::ModelElement::Builder>>" if p.composite else f"std::vector<{p.type}>"
    return p.type


def is_child(p, k):
    return k == "composite" or (k in COLLECTION_KINDS and p.composite)


def level_base(mm, cls):
    return None if cls.superclass == "ModelElement" else f"{cls.superclass}::Impl::BuilderImpl"


def write_builder_header(mm, cls):
    """The builder levels of a class: its staged values, the fluent template, and the
    concrete builder of a class that can be instantiated."""
    props = staged(mm, cls)
    up = level_base(mm, cls)
    members = "".join(f"    {staged_type(p, k)} {p.name}_{initial(p) if k == 'value' else ''};\n" for p, k in props)
    ctor = (f"    explicit BuilderImpl(::kivra::ModelElement::Builder &root) noexcept : Level(root, nullptr) {{}}\n" if up is None else
            f"    explicit BuilderImpl({up} &up) noexcept : Level(up.root(), &up) {{}}\n"
            f"    /// The superclass's level.\n    {up} &up() const noexcept {{ return static_cast<{up} &>(*upLevel()); }}\n")
    overrides = ""
    if any(not is_child(p, k) for p, k in props):
        overrides += f"    std::uint64_t doSetOrAdd({META}::Property const &property, ::kivra::Value const &value) override;\n"
    if any(is_child(p, k) for p, k in props):
        overrides += f"    std::uint64_t doSetOrAdd({META}::Property const &property, std::unique_ptr<::kivra::ModelElement::Builder> &child) override;\n"
    hooks = ""
    if any(k in ("reference", "container-end") or (k in COLLECTION_KINDS and not p.composite) for p, k in props):
        hooks += "    void applyReferences(::kivra::ModelElement::Impl &element) override;\n"
    if any(is_child(p, k) for p, k in props):
        hooks += "    void cascadeCreation(::kivra::ModelElement::Impl &element) override;\n"
    out = [f"""
/// The values of `{cls.name}`'s own properties staged in a builder, before the element exists.
class {cls.name}::Impl::BuilderImpl : public ::kivra::ModelElement::Builder::Level {{
public:
{ctor}{overrides}
private:
    friend class {cls.name}::Impl;
    template <class> friend class {cls.name}::Impl::BuilderBase;
{hooks}{members}}};

/// The fluent setters of `{cls.name}`'s own properties, returning the most derived builder `B`.
template <class B>
class {cls.name}::Impl::BuilderBase : public {"::kivra::ModelElement::Builder" if up is None else f"{cls.superclass}::Impl::BuilderBase<B>"} {{
public:
"""]
    for p, k in props:
        i = f"{cls.name}::Impl::{p.name}Index"
        if k == "value":
            arg = param(p)
            out.append(f"    B &set{p.cap}({arg}value) {{ level().{p.name}_ = value; this->markSet({i}); return self(); }}\n")
            out.append(f"    /// Back to the element's default.\n")
            out.append(f"    B &unset{p.cap}() {{ level().{p.name}_ = {native(p)}{initial(p)}; this->clearSet({i}); return self(); }}\n")
            out.append(f"    {native(p)} const &get{p.cap}() const noexcept {{ return level().{p.name}_; }}\n")
        elif k == "optional":
            out.append(f"    B &set{p.cap}(boost::optional<{native(p)}> const &value) {{ level().{p.name}_ = value; value ? this->markSet({i}) : this->clearSet({i}); return self(); }}\n")
            out.append(f"    B &unset{p.cap}() {{ level().{p.name}_ = boost::none; this->clearSet({i}); return self(); }}\n")
            out.append(f"    boost::optional<{native(p)}> const &get{p.cap}() const noexcept {{ return level().{p.name}_; }}\n")
        elif k in ("reference", "container-end"):
            out.append(f"    /// An empty handle clears the staged value.\n")
            out.append(f"    B &set{p.cap}({p.type} const &value) {{ level().{p.name}_ = value; value ? this->markSet({i}) : this->clearSet({i}); return self(); }}\n")
            out.append(f"    {p.type} const &get{p.cap}() const noexcept {{ return level().{p.name}_; }}\n")
        elif k == "composite":
            out.append(f"    /// Stages the builder of the owned `{p.type}`; raises `NoSuchProperty` for a child of another class.\n")
            out.append(f"    B &set{p.cap}(std::unique_ptr<::kivra::ModelElement::Builder> child) {{ this->setOrAdd({cls.name}::Impl::{p.name}Property(), std::move(child)); return self(); }}\n")
            out.append(f"    B &clear{p.cap}() {{ level().{p.name}_.reset(); this->clearSet({i}); return self(); }}\n")
        elif k == "values":
            entry = value_entry(p)
            out.append(f"    /// Stages one more entry, added as the collection adds it when the element is made.\n")
            out.append(f"    B &add{p.cap}({entry} const &value) {{ level().{p.name}_.push_back(value); this->markSet({i}); return self(); }}\n")
            out.append(f"    B &add{p.cap}(std::initializer_list<{entry}> values) {{ level().{p.name}_.insert(level().{p.name}_.end(), values); this->markSet({i}); return self(); }}\n")
            out.append(f"    B &clear{p.cap}() {{ level().{p.name}_.clear(); this->clearSet({i}); return self(); }}\n")
            out.append(f"    std::vector<{entry}> const &get{p.cap}() const noexcept {{ return level().{p.name}_; }}\n")
        elif p.composite:
            out.append(f"    /// Stages the builder of one more child; raises `NoSuchProperty` for a child of another class.\n")
            out.append(f"    B &add{p.cap}(std::unique_ptr<::kivra::ModelElement::Builder> child) {{ this->setOrAdd({cls.name}::Impl::{p.name}Property(), std::move(child)); return self(); }}\n")
            out.append(f"    B &clear{p.cap}() {{ level().{p.name}_.clear(); this->clearSet({i}); return self(); }}\n")
        else:
            out.append(f"    B &add{p.cap}({p.type} const &value) {{ level().{p.name}_.push_back(value); this->markSet({i}); return self(); }}\n")
            out.append(f"    B &add{p.cap}(std::initializer_list<{p.type}> values) {{ level().{p.name}_.insert(level().{p.name}_.end(), values); this->markSet({i}); return self(); }}\n")
            out.append(f"    B &clear{p.cap}() {{ level().{p.name}_.clear(); this->clearSet({i}); return self(); }}\n")
            out.append(f"    std::vector<{p.type}> const &get{p.cap}() const noexcept {{ return level().{p.name}_; }}\n")
    base = "::kivra::ModelElement::Builder" if up is None else f"{cls.superclass}::Impl::BuilderBase<B>"
    out.append(f"""
protected:
    BuilderBase(::kivra::Model const &model, std::size_t bitCount) : {base}(model, bitCount) {{}}
""")
    if props:
        out.append(f"""
private:
    {cls.name}::Impl::BuilderImpl &level() noexcept {{ return static_cast<B &>(*this); }}
    {cls.name}::Impl::BuilderImpl const &level() const noexcept {{ return static_cast<B const &>(*this); }}
    B &self() noexcept {{ return static_cast<B &>(*this); }}
""")
    out.append("};\n")
    if not cls.abstract:
        levels = [c for c in reversed(list(mm.chain(cls)))]
        bases = ", ".join([f"public {cls.name}::Impl::BuilderBase<{cls.name}::Builder>"] + [f"public {c.name}::Impl::BuilderImpl" for c in levels])
        out.append(f"""
/// Stages the values of a new `{cls.name}` and makes it: `create` gives the element, and the
/// elements of the child builders staged on it, in one transaction.
class {cls.name}::Builder final : {bases} {{
public:
    /// A builder with no model yet: `setModel` before `create`.
    Builder();
    explicit Builder(::kivra::Model const &model);

    Class const &getMetaClass() const override;
    /// The new element; a nil `uuid` draws a fresh one. Raises as `create` does.
    {cls.name} create{cls.name}(boost::uuids::uuid const &uuid = {{}}) {{ return create{cls.name}(/*noCascade=*/false, uuid); }}
    /// With `noCascade`, the element is neither announced nor given references or children.
    {cls.name} create{cls.name}(bool noCascade, boost::uuids::uuid const &uuid);

protected:
    ::kivra::ModelElement doCreate(bool noCascade, boost::uuids::uuid const &uuid) override;

private:
    static ::kivra::ModelElement::Impl *construct(::kivra::ModelElement::Builder &builder, boost::uuids::uuid const &uuid);
}};
""")
    out.append(f"""
/// Owns a builder of a `{cls.name}` or of a subclass, known only by its base: what a
/// collection of `{cls.name}` elements takes to make new entries.
class {cls.name}::BuilderWrapper final : public ::kivra::ModelElement::BuilderWrapper {{
public:
    BuilderWrapper() noexcept = default;
    /// Raises `CannotCastIncompatibleTypes` for a builder of another class.
    explicit BuilderWrapper(std::unique_ptr<::kivra::ModelElement::Builder> builder)
        : ::kivra::ModelElement::BuilderWrapper(std::move(builder), {cls.name}::metaClass()) {{}}
}};
""")
    return "".join(out)


def write_builder_source(mm, cls):
    props = staged(mm, cls)
    out = []
    name = cls.name
    # The element's constructor from the staged values.
    base_ctor = ("::kivra::ModelElement::Impl(level.root(), uuid)" if cls.superclass == "ModelElement"
                 else f"{cls.superclass}::Impl(level.up(), uuid)")
    inits = "".join(f", {p.name}_(level.{p.name}_)" for p, k in props if k in ("value", "optional"))
    # Entries go in as the collection adds them; the element is not yet announced, so
    # nothing is recorded.
    fills = []
    for p, k in props:
        if k != "values":
            continue
        ctype = values_type(mm, p)
        add = ("assign" if "PrimitiveSequence" in ctype else "add" if "PrimitiveMap" in ctype else "insert")
        fill = (f"ensure{p.cap}().assign(level.{p.name}_);\n" if add == "assign" else
                f"for (auto const &entry : level.{p.name}_)\n            ensure{p.cap}().{add}(entry);\n")
        fills.append(f"    if (level.root().isSet({p.name}Index) && !level.{p.name}_.empty())\n        {fill}")
    body = "{\n" + "".join(fills) + "}" if fills else "{}"
    out.append(f"""
{name}::Impl::Impl(BuilderImpl &level, boost::uuids::uuid const &uuid) : {base_ctor}{inits} {body}
""")
    if props:
        cases = []
        for p, k in props:
            head = f"    if (property == {p.name}Property()) {{\n"
            if k == "value":
                body = f"        {p.name}_ = {from_value(p, 'value')};\n"
            elif k == "optional":
                body = f"        {p.name}_ = value.hasPayload() ? boost::make_optional(value.get<{native(p)}>()) : boost::none;\n"
            elif k in ("reference", "container-end"):
                body = f"        {p.name}_ = {p.type}::fromImpl(::kivra::detail::elementAs<{p.type}::Impl>(value));\n"
            elif k == "values":
                body = f"        ::kivra::detail::stageValues({p.name}_, value);\n"
            elif k in COLLECTION_KINDS and not p.composite:
                body = (f"        for (::kivra::Value const &entry : value.extractEntryValues())\n"
                        f"            {p.name}_.push_back({p.type}::fromImpl(::kivra::detail::elementAs<{p.type}::Impl>(entry)));\n")
            else:
                continue  # children come as builders
            cases.append(f"{head}{body}        return {p.name}Index;\n    }}\n")
    if any(not is_child(p, k) for p, k in props):
        out.append(f"""
std::uint64_t {name}::Impl::BuilderImpl::doSetOrAdd({META}::Property const &property, ::kivra::Value const &value) {{
    if (!property.get())
        return notOwn;
{"".join(cases)}    return notOwn;
}}
""")
    children = [(p, k) for p, k in props if is_child(p, k)]
    if children:
        cases = []
        for p, k in children:
            store = f"{p.name}_ = std::move(child);" if k == "composite" else f"{p.name}_.push_back(std::move(child));"
            cases.append(f"""    if (property == {p.name}Property() && fits(*child, property)) {{
        {store}
        return {p.name}Index;
    }}
""")
        out.append(f"""
std::uint64_t {name}::Impl::BuilderImpl::doSetOrAdd({META}::Property const &property, std::unique_ptr<::kivra::ModelElement::Builder> &child) {{
    if (!property.get() || !child)
        return notOwn;
{"".join(cases)}    return notOwn;
}}
""")
        lines = []
        for p, k in children:
            if k == "composite":
                lines.append(f"""    if (root().isSet({p.name}Index) && {p.name}_)
        self.set{p.cap}({p.type}::fromImpl(static_cast<{p.type}::Impl *>(createChild(*{p.name}_).get())));
""")
            else:
                lines.append(f"""    if (root().isSet({p.name}Index))
        for (auto const &child : {p.name}_)
            addTo(self.get{p.cap}Mutable(), createChild(*child));
""")
        out.append(f"""
void {name}::Impl::BuilderImpl::cascadeCreation(::kivra::ModelElement::Impl &element) {{
    auto &self = static_cast<{name}::Impl &>(element);
{"".join(lines)}}}
""")
    refs = [(p, k) for p, k in props if k in ("reference", "container-end") or (k in COLLECTION_KINDS and not p.composite)]
    if refs:
        lines = []
        for p, k in refs:
            if k in COLLECTION_KINDS:
                lines.append(f"""    if (root().isSet({p.name}Index))
        for ({p.type} const &entry : {p.name}_)
            addTo(self.get{p.cap}Mutable(), entry);
""")
            else:
                lines.append(f"    if (root().isSet({p.name}Index))\n        self.set{p.cap}({p.name}_);\n")
        out.append(f"""
void {name}::Impl::BuilderImpl::applyReferences(::kivra::ModelElement::Impl &element) {{
    auto &self = static_cast<{name}::Impl &>(element);
{"".join(lines)}}}
""")
    if not cls.abstract:
        levels = [c for c in reversed(list(mm.chain(cls)))]
        inits = [f"{name}::Impl::BuilderBase<{name}::Builder>(model, {name}::Impl::propertyCount + 1)"]
        prev = "static_cast<::kivra::ModelElement::Builder &>(*this)"
        for c in levels:
            inits.append(f"{c.name}::Impl::BuilderImpl({prev})")
            prev = f"static_cast<{c.name}::Impl::BuilderImpl &>(*this)"
        joined = ",\n      ".join(inits)
        out.append(f"""
{name}::Builder::Builder() : Builder(::kivra::Model()) {{}}

{name}::Builder::Builder(::kivra::Model const &model)
    : {joined} {{
    top_ = static_cast<{name}::Impl::BuilderImpl *>(this);
}}

Class const &{name}::Builder::getMetaClass() const {{ return {name}::metaClass(); }}

{name} {name}::Builder::create{name}(bool noCascade, boost::uuids::uuid const &uuid) {{
    return {name}::fromImpl(static_cast<{name}::Impl *>(runCreation(noCascade, uuid, &construct).get()));
}}

::kivra::ModelElement {name}::Builder::doCreate(bool noCascade, boost::uuids::uuid const &uuid) {{ return create{name}(noCascade, uuid); }}

::kivra::ModelElement::Impl *{name}::Builder::construct(::kivra::ModelElement::Builder &builder, boost::uuids::uuid const &uuid) {{
    auto &self = static_cast<{name}::Builder &>(builder);
    return new (self.getModel()) {name}::Impl(static_cast<{name}::Impl::BuilderImpl &>(self), uuid);
}}
""")
    return "".join(out)


def public_note(ident):
    return f'  ///< public identifier "{ident}"' if ident else ""


def write_handles(mm):
    out = [mm.banner, f"#pragma once\n/// \\file\n/// The handles of the classes of `{mm.dotted}`: one pointer each, converting up the class chain.\n\n",
           "#include <kivra/Handles.hpp>\n#include <kivra/meta/Fwd.hpp>\n" + ("#include <kivra/meta/Handles.hpp>\n" if ENUMS and not is_meta(mm) else "") + handle_query_includes(mm) + "\n#include <boost/uuid/uuid.hpp>\n\n#include <cstdint>\n\n",
           f"namespace {mm.ns} {{\n"]
    if mm.ns != "kivra::meta":
        out.append("\nusing ::kivra::meta::Class;\n")
    elif ENUMS:
        out.append("\nclass Enum;\n")
    out.append(handle_forward_declarations(mm))
    for enum in ENUMS.values():
        literals = "".join(f"    {name} = {value},{public_note(ident)}\n" for name, value, ident in enum.literals)
        idents = "".join(f"    case {enum.name}::{name}:\n        return u\"{ident}\";\n" for name, _, ident in enum.literals if ident)
        out.append(f"""
/// The literals of the enumeration `{enum.name}`, with their values.
enum class {enum.name} : std::int32_t {{
{literals}}};
/// The `meta::Enum` that describes `{enum.name}`.
::kivra::meta::Enum const &metaEnum({enum.name});
/// The public identifier of a literal; empty when it has none.
inline char16_t const *publicIdentifier({enum.name} literal) noexcept {{
    switch (literal) {{
{idents}    default:
        return u"";
    }}
}}
""")
    for cls in mm.order():
        out.append(f"""
/// Handle of a `{cls.name}` element; `operator->` needs `{mm.header(cls.name)}`.
class {cls.name} : public {mm.handle_base(cls)} {{
public:
    class Impl;

    {cls.name}() noexcept = default;
    /// Defined with `{cls.name}::Impl`.
    Impl *get() const noexcept;
    Impl *operator->() const noexcept {{ return get(); }}

    /// The metaclass that describes `{cls.name}` elements.
    static Class const &metaClass();
    /// A counted handle on `impl`, or a null handle.
    static {cls.name} fromImpl(Impl *impl) noexcept;
    /// Owns a builder of a `{cls.name}` or of a subclass, known only by its base.
    class BuilderWrapper;
""")
        if not cls.abstract:
            out.append(f"""    /// Stages the values of a new `{cls.name}`: `{cls.name}::Builder(model).setXxx(...).create{cls.name}()`.
    class Builder;
    /// A new `{cls.name}` in `model`, top level, with default values; a nil `uuid` draws a
    /// fresh one. The short form of the builder, without the builder's cost.
    static {cls.name} create(::kivra::Model const &model, boost::uuids::uuid const &uuid = {{}});
    /// A proxy of a `{cls.name}` named by `proxyId`, outside the model's tables.
    static {cls.name} createProxy(::kivra::Model const &model, ::kivra::ProxyId const &proxyId);
""")
        out.append(handle_query_members(mm, cls))
        out.append(f"""
protected:
    {cls.name}(Impl *impl, bool addReference) noexcept;
}};
""")
    out.append(f"\n}} // namespace {mm.ns}\n")
    return "".join(out)


def write_header(mm, cls, extra_dir):
    kinds = [(p, mm.kind(p)) for p in cls.props if mm.kind(p)]
    includes = {f"{mm.prefix}/Handles.hpp", "kivra/ChangeRecords.hpp", "kivra/ModelElement.hpp", "kivra/meta/Handles.hpp",
                "boost/optional/optional.hpp"}
    if cls.superclass != "ModelElement":
        includes.add(mm.header(cls.superclass))
    std_includes = {"cstdint", "cstddef", "initializer_list", "memory", "vector"}
    for p, k in kinds:
        if p.type in PRIMITIVES:
            cpp = native(p)
            if cpp == "basalt::ustring":
                includes.add("basalt/ustring.hpp")
            elif cpp == "std::string":
                std_includes.add("string")
            elif cpp == "boost::posix_time::ptime":
                includes.add("boost/date_time/posix_time/ptime.hpp")
            if p.default and p.type in ("UUID", "DateTime"):
                includes.add("kivra/detail/DynamicDefaults.hpp" if p.default in ("random", "now") else "kivra/UuidLiteral.hpp")
        if k == "optional":
            includes.add("boost/optional/optional.hpp")
        if k == "sequence":
            includes.add("kivra/ElementSequence.hpp")
            std_includes.add("memory")
        if k == "set":
            includes.add("kivra/UnorderedElementSet.hpp")
            std_includes.add("memory")
        if k in ("map", "multimap"):
            includes.add("kivra/ElementMap.hpp")
            std_includes.add("memory")
        if k in VALUE_KINDS:
            includes.add("kivra/Fwd.hpp")
        if k in COLLECTION_KINDS + VALUE_KINDS:
            includes.add("kivra/detail/CollectionSlot.hpp")
        if k == "values" and p.type in BUILTIN_DATATYPES:
            includes.add("kivra/meta/VersionInfo.hpp")
    out = [mm.banner, f"#pragma once\n/// \\file\n/// The `{cls.name}` class of `{mm.dotted}`: its handle's implementation.\n\n"]
    out += [f"#include <{i}>\n" for i in sorted(includes)]
    out.append("\n")
    out += [f"#include <{i}>\n" for i in sorted(std_includes)]
    abstract = " (abstract)" if cls.abstract else ""
    out.append(f"""
namespace {mm.ns} {{

/// The implementation of `{cls.name}`{abstract} elements.
class {cls.name}::Impl : public {mm.impl_base(cls)} {{
public:
""")
    for p in cls.props:
        if p.index:
            out.append(f"    static constexpr std::uint64_t {p.name}Index = {p.index};\n")
    out.append("    /// The number of change-tracked properties along the class chain.\n")
    out.append(f"    static constexpr std::uint64_t propertyCount = {mm.property_count(cls)};\n\n")
    for p in cls.props:
        if p.index:
            out.append(f"    /// The description of `{p.name}`; empty until the metamodel is described.\n")
            out.append(f"    static {META}::Property const &{p.name}Property();\n")
    out.append(f"\n    Class const &getMetaClass() const override;\n")
    out.append("    class BuilderImpl;\n    template <class B> class BuilderBase;\n")
    for p, k in kinds:
        if k == "value":
            ret = param(p).strip() if not is_enum(p) and PRIMITIVES[p.type][1] else native(p)
            out.append(f"\n    {ret} get{p.cap}() const noexcept {{ return {p.name}_; }}\n")
            out.append(f"    void set{p.cap}({param(p)}value);\n")
        elif k == "optional":
            out.append(f"\n    boost::optional<{native(p)}> const &get{p.cap}() const noexcept {{ return {p.name}_; }}\n")
            out.append(f"    bool has{p.cap}() const noexcept {{ return {p.name}_.has_value(); }}\n")
            out.append(f"    void set{p.cap}(boost::optional<{native(p)}> const &value);\n")
        elif k in ("reference", "composite"):
            what = "owned" if k == "composite" else "referenced"
            out.append(f"\n    /// The {what} `{p.type}`, resolved when it is a proxy; empty when none.\n")
            out.append(f"    {p.type} get{p.cap}() const;\n")
            out.append(f"    void set{p.cap}({p.type} const &value);\n")
        elif k in COLLECTION_KINDS:
            ctype = collection_type(k, p, mm)
            out.append(f"\n    /// The `{p.name}`, made on first use; each access resolves the proxies it holds.\n")
            out.append(f"    {ctype} const &get{p.cap}() const;\n")
            out.append(f"    {ctype} &get{p.cap}Mutable();\n")
            out.append(f"    /// True when the collection was made and holds anything.\n")
            out.append(f"    bool has{p.cap}() const noexcept {{ auto const *made = {p.name}_.get(); return made && !made->empty(); }}\n")
        elif k in VALUE_KINDS:
            ctype = values_type(mm, p)
            out.append(f"\n    /// The `{p.name}`, made on first use.\n")
            out.append(f"    {ctype} const &get{p.cap}() const;\n")
            out.append(f"    {ctype} &get{p.cap}Mutable();\n")
            out.append(f"    /// True when the collection was made and holds anything.\n")
            out.append(f"    bool has{p.cap}() const noexcept;\n")
        elif k == "container-end":
            out.append(f"\n    /// The containing `{p.type}`, when this element is held by its `{p.opposite}`.\n")
            out.append(f"    {p.type} get{p.cap}() const;\n")
            if mm.settable_container_end(p):
                out.append(f"    /// Moves this element into `value`'s `{p.opposite}`, or out of its container.\n")
                out.append(f"    void set{p.cap}({p.type} const &value);\n")
    if kinds:
        out.append(f"""
    bool hasPropertyValue({META}::Property const &property, {TAG} const &tag) const override;
    ::kivra::Value getPropertyValue({META}::Property const &property, {TAG} const &tag) const override;
    void setPropertyValue({META}::Property const &property, ::kivra::Value const &value, {TAG} const &tag) override;
""")
    if any(k in IN_PLACE_KINDS for _, k in kinds):
        out.append(f"    void const *nativeValueAddress({META}::Property::Impl const &property) const noexcept override;\n")
    out.append(f"    {META}::Property getPropertyByIndex(std::uint64_t index) const override;\n")
    out.append(f"    {META}::Property::Impl *propertyImplByIndex(std::uint64_t index) const override;\n")
    if own_storage(mm, cls):
        out.append("\n    class Storage;\n")
    else:
        out.append(f"\n    using Storage = {mm.impl_base(cls)}::Storage;\n")
    out.append(f"""    ::kivra::ModelElement::Impl::Changes *createChanges() const override;
    ::kivra::ModelElement::Impl::Storage *createStorage() const override;
    void copyValue(::kivra::ModelElement::Impl::Storage *storage, std::uint64_t index) const override;
    void copyStateFromStorage(::kivra::ModelElement::Impl::Storage *storage) override;
""")
    if any(k in ("reference", "composite", "container-end") + COLLECTION_KINDS for _, k in kinds):
        out.append(f"""    void inverseAdd(::kivra::ModelElement const &other, {META}::Property const &property) override;
    void inverseRemove(::kivra::ModelElement const &other, {META}::Property const &property) override;
    bool inverseContainsProxyTo(::kivra::ModelElement const &other, {META}::Property const &property) const override;
    void basicAssociate(::kivra::ModelElement const &other, {META}::Property const &property) override;
""")
    builder_friend = "" if cls.abstract else f"\n    friend class {cls.name}::Builder;"
    extra = extra_dir / f"{cls.name}Extra.inc"
    if extra.exists():
        out.append(f"\n#include <{mm.prefix}/detail/{cls.name}Extra.inc>\n")
    out.append(f"""
protected:
    friend class {cls.name};{builder_friend}
{f"    Impl(::kivra::Model const &model, boost::uuids::uuid const &uuid);{chr(10)}    ~Impl() override;" if holds_values(mm, cls) else f"    Impl(::kivra::Model const &model, boost::uuids::uuid const &uuid) : {mm.impl_base(cls)}(model, uuid) {{}}"}
    /// Takes the plain values staged in `level` and its levels above.
    Impl(BuilderImpl &level, boost::uuids::uuid const &uuid);
    void doDestroy(bool modelDestroying, bool multiModel) override;
""")
    if any(k == "reference" and p.opposite or disassociated(p, k) for p, k in kinds):
        out.append("    void disassociateIncoming() override;\n")
    if any(k in ("reference", "composite") + COLLECTION_KINDS for p, k in kinds):
        out.append("    void basicDisassociateAll() override;\n")
    if any(k == "reference" or (k in COLLECTION_KINDS and not p.composite) for p, k in kinds):
        out.append("    void convertReferencesToProxies(bool multiModel, boost::optional<::kivra::ProxyId> &proxyId) override;\n")
    for p, k in kinds:
        if k in COLLECTION_KINDS:
            out.append(f"    /// The collection, made when missing; no proxy is resolved.\n")
            out.append(f"    {collection_type(k, p, mm)} &ensure{p.cap}() const;\n")
        elif k in VALUE_KINDS:
            out.append(f"    /// The collection, made when missing.\n")
            out.append(f"    {values_type(mm, p)} &ensure{p.cap}() const;\n")
    members = [(p, k) for p, k in kinds if k in ("value", "optional", "reference", "composite") + COLLECTION_KINDS + VALUE_KINDS]
    if members:
        out.append("\n")
    for p, k in members:
        if k == "value":
            out.append(f"    {native(p)} {p.name}_{initial(p)};\n")
        elif k == "optional":
            out.append(f"    boost::optional<{native(p)}> {p.name}_;\n")
        elif k in COLLECTION_KINDS:
            out.append(f"    /// Null until first used: an untouched collection costs this pointer only.\n")
            out.append(f"    ::kivra::detail::CollectionSlot<{collection_type(k, p, mm)}> {p.name}_;\n")
        elif k in VALUE_KINDS:
            out.append(f"    /// Null until first used: an untouched collection costs this pointer only.\n")
            out.append(f"    ::kivra::detail::CollectionSlot<{values_type(mm, p)}> {p.name}_;\n")
        else:
            out.append(f"    {p.type} {p.name}_;\n")
    out.append("};\n")
    if own_storage(mm, cls):
        revert = "    bool revertUnchanged(::kivra::ModelElement::Impl *element) override;\n" if plain_members(mm, cls) else ""
        # Out of line when members are collections of values, which the header only declares.
        storage_ctor = (f"    using {mm.impl_base(cls)}::Storage::Storage;\n" if not holds_values(mm, cls) else
                        "    Storage(boost::uuids::uuid const &uuid, ::kivra::Model::Impl *model, Class const &metaClass, std::uint64_t count);\n"
                        "    ~Storage() override;\n")
        out.append(f"""
/// The old values of `{cls.name}`'s own members in a deep transaction.
class {cls.name}::Impl::Storage : public {mm.impl_base(cls)}::Storage {{
public:
{storage_ctor}{revert}    ::kivra::Value getOldValue({META}::Property const &property, {TAG} const &tag) const override;

private:
    friend class {cls.name}::Impl;
""")
        for p, k in storage_members(mm, cls):
            if k == "value":
                out.append(f"    {native(p)} {p.name}_{initial(p)};\n")
            elif k == "optional":
                out.append(f"    boost::optional<{native(p)}> {p.name}_;\n")
            elif k in COLLECTION_KINDS:
                out.append(f"    mutable std::unique_ptr<{collection_type(k, p, mm)}> {p.name}_;\n")
            elif k in VALUE_KINDS:
                out.append(f"    mutable std::unique_ptr<{values_type(mm, p)}> {p.name}_;\n")
            else:
                out.append(f"    {p.type} {p.name}_;\n")
        out.append("};\n")
    out.append(write_builder_header(mm, cls))
    out.append(f"""
inline {cls.name}::Impl *{cls.name}::get() const noexcept {{
    return static_cast<Impl *>(::kivra::ModelElement::get());
}}
inline {cls.name}::{cls.name}(Impl *impl, bool addReference) noexcept : {mm.handle_base(cls)}(impl, addReference) {{}}
inline {cls.name} {cls.name}::fromImpl(Impl *impl) noexcept {{ return {cls.name}(impl, /*addReference=*/true); }}

}} // namespace {mm.ns}
""")
    return "".join(out)


def slot_trigger(mm):
    """What makes a generated package's description exist before a handle is read."""
    return f"{package_class(mm)}::getInstance()"


def slot_expression(mm, function, uuid_text):
    lookup = f"{META}::detail::{function}(::kivra::parseUuidLiteral(\"{uuid_text}\"))"
    if mm.described() and not is_meta(mm):
        return f"({slot_trigger(mm)}, {lookup})"
    return lookup


def slot_guard(mm):
    """kivra's own handles are read while the registry describes them: the description is
    asked for before the static, never inside its initialization."""
    return f"    {META}::detail::ensureDescribed();\n" if is_meta(mm) else ""


def write_source(mm, cls):
    base = mm.impl_base(cls)
    kinds = [(p, mm.kind(p)) for p in cls.props if mm.kind(p)]
    includes = {mm.header(cls.name), "kivra/ElementId.hpp", "kivra/UuidLiteral.hpp", "kivra/Value.hpp", "kivra/detail/References.hpp", "kivra/detail/Setter.hpp",
                "kivra/meta/Class.hpp", "kivra/meta/Property.hpp", "kivra/meta/detail/Metaclasses.hpp"}
    for p, k in kinds:
        if k in ("reference", "composite", "container-end") + COLLECTION_KINDS:
            includes.add(mm.header(p.type))
        if k in COLLECTION_KINDS + VALUE_KINDS:
            includes.add("kivra/detail/Collections.hpp")
        if k == "values":
            includes.add("kivra/PrimitiveCollection.hpp")
        if k == "stringmap":
            includes.add("kivra/StringToStringMap.hpp")
        if k == "value":
            for q, far in mm.key_holders(p):
                includes.add(mm.header(q.owner))
                if far is not None:
                    includes.add(mm.header(far.owner))
    if mm.described():
        includes.add("kivra/meta/detail/Metaclasses.hpp" if is_meta(mm) else f"{mm.prefix}/{package_class(mm)}.hpp")
    out = [mm.banner]
    out += [f"#include <{i}>\n" for i in sorted(includes)]
    out.append(f"""
namespace {mm.ns} {{

Class const &{cls.name}::metaClass() {{
{slot_guard(mm)}    static Class const &slot = {slot_expression(mm, "metaclassSlot", cls.uuid)};
    return slot;
}}

Class const &{cls.name}::Impl::getMetaClass() const {{ return {cls.name}::metaClass(); }}
""")
    for p in cls.props:
        if p.index:
            out.append(f"""
{META}::Property const &{cls.name}::Impl::{p.name}Property() {{
{slot_guard(mm)}    static {META}::Property const &slot = {slot_expression(mm, "propertySlot", mm.property_uuid(p))};
    return slot;
}}
""")
    if not cls.abstract:
        out.append(f"""
{cls.name} {cls.name}::create(::kivra::Model const &model, boost::uuids::uuid const &uuid) {{
    Impl *const made = new (model) Impl(model, uuid);
    made->addRefWhileUnshared();
    {cls.name} element(made, /*addReference=*/false);
    element->notifyCreated();
    return element;
}}

{cls.name} {cls.name}::createProxy(::kivra::Model const &model, ::kivra::ProxyId const &proxyId) {{
    {cls.name} element(new (model) Impl(model, {{}}), /*addReference=*/true);
    element->makeProxy(proxyId);
    return element;
}}
""")
    if holds_values(mm, cls):
        out.append(f"""
{cls.name}::Impl::Impl(::kivra::Model const &model, boost::uuids::uuid const &uuid) : {base}(model, uuid) {{}}

{cls.name}::Impl::~Impl() = default;

{cls.name}::Impl::Storage::Storage(boost::uuids::uuid const &uuid, ::kivra::Model::Impl *model, Class const &metaClass, std::uint64_t count)
    : {base}::Storage(uuid, model, metaClass, count) {{}}

{cls.name}::Impl::Storage::~Storage() = default;
""")
    # Destruction: owned children go with their owner.
    body = []
    for p, k in kinds:
        if k == "composite":
            # Announced first, so that a roll-back gets the child back into its place.
            body.append(f"""    if ({p.name}_.get())
        notifyModifying({p.name}Index);
    if ({p.type} const child = std::move({p.name}_); child.get() && !child->isProxy())
        child->destroyRecursively(modelDestroying, /*removeFromContainer=*/false, multiModel);
""")
    for p, k in kinds:
        if k in COLLECTION_KINDS and p.composite:
            body.append(f"""    if ({p.name}_ && !{p.name}_->empty())
        ::kivra::detail::destroyChildren(*this, *{p.name}_, {p.name}Index, modelDestroying, multiModel);
""")
    out.append(f"""
void {cls.name}::Impl::doDestroy(bool modelDestroying, bool multiModel) {{
{"".join(body)}    {base}::doDestroy(modelDestroying, multiModel);
}}
""")
    if any(k == "reference" and p.opposite or disassociated(p, k) for p, k in kinds):
        lines = "".join(f"    if ({p.name}_.get())\n        set{p.cap}({{}});\n" for p, k in kinds if k == "reference" and p.opposite)
        lines += "".join(f"    if ({p.name}_)\n        {p.name}_->clear();\n" for p, k in kinds if disassociated(p, k))
        out.append(f"""
void {cls.name}::Impl::disassociateIncoming() {{
{lines}    {base}::disassociateIncoming();
}}
""")
    if any(k in ("reference", "composite") + COLLECTION_KINDS for p, k in kinds):
        lines = "".join(f"    {p.name}_.reset();\n" for p, k in kinds if k in ("reference", "composite") + COLLECTION_KINDS)
        out.append(f"""
void {cls.name}::Impl::basicDisassociateAll() {{
    // The far ends are put back by their own records.
{lines}    {base}::basicDisassociateAll();
}}
""")
    if any(k == "reference" or (k in COLLECTION_KINDS and not p.composite) for p, k in kinds):
        lines = "".join(f"    {p.name}_.reset();\n" for p, k in kinds if k == "reference" or (k in COLLECTION_KINDS and not p.composite))
        out.append(f"""
void {cls.name}::Impl::convertReferencesToProxies(bool multiModel, boost::optional<::kivra::ProxyId> &proxyId) {{
    // The model goes away: references let go, and far ends in other models read as none.
{lines}    {base}::convertReferencesToProxies(multiModel, proxyId);
}}
""")
    for p, k in kinds:
        if k == "value" and mm.key_holders(p):
            out.append(write_key_setter(mm, cls, p))
        elif k in ("value", "optional"):
            arg = f"boost::optional<{native(p)}> const &" if k == "optional" else param(p)
            out.append(f"""
void {cls.name}::Impl::set{p.cap}({arg}value) {{ ::kivra::detail::setMember(*this, {p.name}_, value, {p.name}Index); }}
""")
        elif k in ("reference", "composite"):
            frame = "setReference" if k == "reference" else "setComposite"
            out.append(f"""
{p.type} {cls.name}::Impl::get{p.cap}() const {{
    return ::kivra::detail::readReference(*this, const_cast<{p.type} &>({p.name}_));
}}

void {cls.name}::Impl::set{p.cap}({p.type} const &value) {{
    ::kivra::detail::{frame}(*this, {p.name}_, value, {p.name}Property(), {p.name}Index);
}}
""")
        elif k in COLLECTION_KINDS:
            ctype = collection_type(k, p, mm)
            args = f"_privateTag(), self, {str(mm.unique(p)).lower()}, " if k == "sequence" else "_privateTag(), self, "
            if k in ("map", "multimap"):
                key = mm.find_property(p.type, p.qualified_by)
                args = (f"[](::kivra::ModelElement::Impl const &entry) -> {mm.key_type(p)} {{ return static_cast<{p.type}::Impl const &>(entry).get{key.cap}(); }}, " + args)
            out.append(f"""
{ctype} &{cls.name}::Impl::ensure{p.cap}() const {{
    return {p.name}_.ensure(*this, [](Impl &owner) {{
        auto *const self = &owner;
        std::unique_ptr<{ctype}> made(new (self) {ctype}({args}{p.name}Property().get(), ::kivra::detail::oppositeOf({p.name}Property())));
        self->_loadCollectionContents(*made);
        return made.release();
    }});
}}

{ctype} const &{cls.name}::Impl::get{p.cap}() const {{
    ::kivra::detail::checkCollectionOwner(*this);
    {ctype} &collection = ensure{p.cap}();
    ::kivra::detail::resolveCollectionOnAccess(*this, collection);
    return collection;
}}

{ctype} &{cls.name}::Impl::get{p.cap}Mutable() {{ return const_cast<{ctype} &>(get{p.cap}()); }}
""")
        elif k in VALUE_KINDS:
            ctype = values_type(mm, p)
            out.append(f"""
bool {cls.name}::Impl::has{p.cap}() const noexcept {{
    auto const *made = {p.name}_.get();
    return made && !made->empty();
}}

{ctype} &{cls.name}::Impl::ensure{p.cap}() const {{
    return {p.name}_.ensure(*this, [](Impl &owner) {{
        auto *const self = &owner;
        return new (self) {ctype}({values_args(mm, p, True)});
    }});
}}

{ctype} const &{cls.name}::Impl::get{p.cap}() const {{
    ::kivra::detail::checkCollectionOwner(*this);
    return ensure{p.cap}();
}}

{ctype} &{cls.name}::Impl::get{p.cap}Mutable() {{ return const_cast<{ctype} &>(get{p.cap}()); }}
""")
        elif k == "container-end":
            out.append(f"""
{p.type} {cls.name}::Impl::get{p.cap}() const {{
    // Held by its container's `{p.opposite}`: the container is the value.
    {META}::Property const &feature = {p.type}::Impl::{p.opposite}Property();
    if (feature.get() && containmentFeatureImpl() != feature.get())
        return {{}};
    return {p.type}::fromImpl(dynamic_cast<{p.type}::Impl *>(containerImpl()));
}}
""")
            if mm.settable_container_end(p):
                out.append(f"""
void {cls.name}::Impl::set{p.cap}({p.type} const &value) {{
    ::kivra::detail::setContainer(*this, value, {p.type}::Impl::{p.opposite}Property(), {p.name}Index);
}}
""")
    out.append(write_builder_source(mm, cls))
    if kinds:
        out.append(write_reflective(mm, cls, kinds, base))
    if any(k in IN_PLACE_KINDS for _, k in kinds):
        out.append(write_native_address(cls, kinds, base))
    out.append(write_by_index(mm, cls, base))
    out.append(write_records(mm, cls, base))
    if any(k in ("reference", "composite", "container-end") + COLLECTION_KINDS for _, k in kinds):
        out.append(write_association(mm, cls, kinds, base))
    out.append(f"\n}} // namespace {mm.ns}\n")
    return "".join(out)


def write_key_setter(mm, cls, p):
    """The setter of a key: the element leaves the keyed collections that hold it and comes
    back under its new key; a unique key taken by another element changes nothing."""
    body = []
    for q, far in mm.key_holders(p):
        unique = q.shape in ("Map", "HashMap")
        check = (f"        if (owner->has{q.cap}() && owner->get{q.cap}().containsKey(value))\n"
                 f"            ::kivra::detail::raiseKeyTaken();\n") if unique else ""
        push = f"        holders.push_back({{owner.get(), &{q.owner}::Impl::{q.name}Property()}});\n"
        if far is None:
            body.append(f"""    if (containmentFeatureImpl() == {q.owner}::Impl::{q.name}Property().get()) {{
        {q.owner} const owner = {q.owner}::fromImpl(static_cast<{q.owner}::Impl *>(containerImpl()));
{check}{push}    }}
""")
        else:
            # A far end declared on a subclass is there only when this element is of it.
            reach = "" if far.owner == cls.name else f"dynamic_cast<{far.owner}::Impl *>(this)"
            holder = f"static_cast<{far.owner}::Impl *>(this)->" if reach else ""
            if far.shape in COLLECTION_SHAPES:
                loop = f"""    for ({q.owner} const owner : {holder}get{far.cap}()) {{
{check}{push}    }}
"""
            else:
                loop = f"""    if ({q.owner} const owner = {holder}get{far.cap}(); owner.get()) {{
{check}{push}    }}
"""
            body.append(f"    if ({reach}) {{\n" + "".join("    " + l if l else l for l in loop.splitlines(True)) + "    }\n" if reach else loop)
    return f"""
void {cls.name}::Impl::set{p.cap}({param(p)}value) {{
    checkModifiable();
    if ({p.name}_ == value)
        return;
    // The keyed collections that hold this element, asked before anything changes.
    std::vector<::kivra::detail::KeyHolder> holders;
{"".join(body)}    ::kivra::detail::setKey(*this, {p.name}_, value, {p.name}Index, holders);
}}
"""


def disassociated(p, k):
    """A collection whose far ends forget this element when it is destroyed: its children
    go with it instead."""
    return k in COLLECTION_KINDS and p.opposite and not p.composite


def visible(p, mutator):
    note = "noPublicMutator" if mutator else "noPublicAccessor"
    return "" if note not in p.notes else " && tag.isPrivileged()"


def by_index(tests):
    """The tests of a reflective access, found by the property's index in one jump instead of
    comparing the property with each of the class's in turn; the test itself still compares,
    as another class's property may carry the same index. Properties without an index are
    compared one by one after it."""
    indexed = [(p, text) for p, text in tests if p.index]
    rest = "".join(text for p, text in tests if not p.index)
    if not indexed:
        return rest
    cases = "".join(f"    case {p.index}:\n" + "".join("    " + line + "\n" for line in text.rstrip("\n").split("\n")) +
                    "        break;\n" for p, text in indexed)
    return f"""    switch (property->getPropertyIndex()) {{
{cases}    default:
        break;
    }}
{rest}"""


def write_reflective(mm, cls, kinds, base):
    has, get, set_ = [], [], []
    for p, k in kinds:
        guard = f"property == {p.name}Property(){visible(p, False)}"
        if k == "value":
            has.append((p, f"    if ({guard})\n        return true;\n"))
            # Typed by the standard type of the member: no handle of the property's type is read.
            get.append((p, f"    if ({guard})\n        return {to_value(p, p.name + '_')};\n"))
        elif k == "optional":
            has.append((p, f"    if ({guard})\n        return {p.name}_.has_value();\n"))
            get.append((p, f"    if ({guard})\n        return {p.name}_ ? ::kivra::Value(*{p.name}_) : ::kivra::Value(property->getType(), boost::none);\n"))
        elif k in ("reference", "composite"):
            has.append((p, f"    if ({guard})\n        return {p.name}_.get() != nullptr;\n"))
            get.append((p, f"    if ({guard})\n        return ::kivra::Value(property->getType(), tag.resolveProxies() ? ::kivra::ModelElement(get{p.cap}()) : ::kivra::ModelElement({p.name}_));\n"))
        elif k in COLLECTION_KINDS:
            has.append((p, f"    if ({guard})\n        return has{p.cap}();\n"))
            get.append((p, f"    if ({guard})\n        return ::kivra::Value(tag.resolveProxies() ? const_cast<Impl *>(this)->get{p.cap}Mutable() : ensure{p.cap}(), property);\n"))
        elif k == "values":
            has.append((p, f"    if ({guard})\n        return has{p.cap}();\n"))
            get.append((p, f"    if ({guard})\n        return ::kivra::Value(tag.resolveProxies() ? const_cast<Impl *>(this)->get{p.cap}Mutable() : ensure{p.cap}(), property);\n"))
        elif k == "stringmap":
            has.append((p, f"    if ({guard})\n        return has{p.cap}();\n"))
            get.append((p, f"    if ({guard})\n        return ensure{p.cap}().toValue();\n"))
        else:
            has.append((p, f"    if ({guard})\n        return get{p.cap}().get() != nullptr;\n"))
            get.append((p, f"    if ({guard})\n        return ::kivra::Value(property->getType(), ::kivra::ModelElement(get{p.cap}()));\n"))
        mguard = f"property == {p.name}Property(){visible(p, True)}"
        if "readOnly" in p.notes:
            set_.append((p, f"    if ({mguard})\n        ::kivra::raise<::kivra::messages::CannotSetReadOnlyProperty>(u\"{mm.dotted}.{cls.name}.{p.name}\");\n"))
        elif k == "value":
            set_.append((p, f"    if ({mguard})\n        return set{p.cap}({from_value(p, 'value')});\n"))
        elif k == "optional":
            set_.append((p, f"    if ({mguard})\n        return set{p.cap}(value.hasPayload() ? boost::make_optional(value.get<{native(p)}>()) : boost::none);\n"))
        elif k in COLLECTION_KINDS:
            set_.append((p, f"    if ({mguard})\n        return ::kivra::detail::assignCollection(get{p.cap}Mutable(), value);\n"))
        elif k == "values":
            set_.append((p, f"    if ({mguard})\n        return ::kivra::detail::assignValues(get{p.cap}Mutable(), value);\n"))
        elif k == "stringmap":
            set_.append((p, f"    if ({mguard})\n        return get{p.cap}Mutable().assign(::kivra::StringToStringMap::fromValue(value));\n"))
        elif k in ("reference", "composite") or (k == "container-end" and mm.settable_container_end(p)):
            set_.append((p, f"    if ({mguard})\n        return set{p.cap}({p.type}::fromImpl(::kivra::detail::elementAs<{p.type}::Impl>(value)));\n"))
    # An empty handle must not match a description that is not there yet.
    guard = "    if (!property.get())\n        return {base}::{call};\n"
    return f"""
bool {cls.name}::Impl::hasPropertyValue({META}::Property const &property, {TAG} const &tag) const {{
{guard.format(base=base, call="hasPropertyValue(property, tag)")}{by_index(has)}    return {base}::hasPropertyValue(property, tag);
}}

::kivra::Value {cls.name}::Impl::getPropertyValue({META}::Property const &property, {TAG} const &tag) const {{
{guard.format(base=base, call="getPropertyValue(property, tag)")}{by_index(get)}    return {base}::getPropertyValue(property, tag);
}}

void {cls.name}::Impl::setPropertyValue({META}::Property const &property, ::kivra::Value const &value, {TAG} const &tag) {{
{guard.format(base=base, call="setPropertyValue(property, value, tag)")}{by_index(set_)}    {base}::setPropertyValue(property, value, tag);
}}
"""


def write_native_address(cls, kinds, base):
    """The members a query reads in place: single values, primitive or enum, always set, and
    the collections of elements that are made, as `ReferenceCollection`s."""
    def member(p, k):
        if k == "value":
            return f"&{p.name}_"
        return f"static_cast<::kivra::ReferenceCollection const *>({p.name}_.get())"
    cases = "".join(f"    case {p.index}:\n        if (&property == {p.name}Property().get())\n            return {member(p, k)};\n        break;\n"
                    for p, k in kinds if k in IN_PLACE_KINDS)
    return f"""
void const *{cls.name}::Impl::nativeValueAddress({META}::Property::Impl const &property) const noexcept {{
    switch (property.getPropertyIndex()) {{
{cases}    default:
        break;
    }}
    return {base}::nativeValueAddress(property);
}}
"""


def write_by_index(mm, cls, base):
    own = [p for p in cls.props if p.index]
    first = mm.first_index(cls)
    cases = "".join(f"    case {p.index}:\n        return {p.name}Property();\n" for p in own)
    raw_cases = "".join(f"    case {p.index}:\n        return {p.name}Property().get();\n" for p in own)
    return f"""
{META}::Property {cls.name}::Impl::getPropertyByIndex(std::uint64_t index) const {{
    if (index < {first})
        return {base}::getPropertyByIndex(index);
    switch (index) {{
{cases}    default:
        return {{}};
    }}
}}

{META}::Property::Impl *{cls.name}::Impl::propertyImplByIndex(std::uint64_t index) const {{
    if (index < {first})
        return {base}::propertyImplByIndex(index);
    switch (index) {{
{raw_cases}    default:
        return nullptr;
    }}
}}
"""


def write_association(mm, cls, kinds, base):
    add, remove, associate, contains = [], [], [], []
    for p, k in kinds:
        is_p = f"property.get() && property == {p.name}Property()"
        if k in COLLECTION_KINDS:
            add.append(f"""    if ({is_p}) {{
        _basicAdd(ensure{p.cap}(), other);
        return;
    }}
""")
            remove.append(f"""    if ({is_p}) {{
        if ({p.name}_)
            _basicRemove(*{p.name}_, other);
        return;
    }}
""")
            associate.append(f"""    if ({is_p}) {{
        _basicAdd(ensure{p.cap}(), other);
        return;
    }}
""")
            contains.append(f"""    if ({is_p})
        return {p.name}_ && _basicContainsProxyTo(*{p.name}_, other);
""")
        if k == "reference":
            contains.append(f"""    if ({is_p})
        return ::kivra::detail::holdsProxyTo(*this, const_cast<{p.type} &>({p.name}_), other);
""")
            # A single end holds one partner: the old one is told to let go, so that both
            # ends of every pair stay consistent.
            add.append(f"""    if ({is_p}) {{
        notifyModifying({p.name}Index);
        {p.type} const old = std::exchange({p.name}_, {p.type}::fromImpl(::kivra::detail::elementAs<{p.type}::Impl>(other)));
        if (old.get() && old != {p.name}_ && property->getOpposite())
            _inverseRemoveThis(old.get(), property->getOpposite());
        return;
    }}
""")
            remove.append(f"""    if ({is_p}) {{
        if ({p.name}_ == other) {{
            notifyModifying({p.name}Index);
            {p.name}_.reset();
        }}
        return;
    }}
""")
            associate.append(f"""    if ({is_p}) {{
        notifyModifying({p.name}Index);
        {p.name}_ = {p.type}::fromImpl(::kivra::detail::elementAs<{p.type}::Impl>(other));
        return;
    }}
""")
        elif k == "composite":
            add.append(f"""    if ({is_p}) {{
        notifyModifying({p.name}Index);
        {p.type} const old = std::exchange({p.name}_, {p.type}::fromImpl(::kivra::detail::elementAs<{p.type}::Impl>(other)));
        if (old.get() && old != {p.name}_ && old->containerImpl() == this)
            _basicSetUncontained(old.get());
        return;
    }}
""")
            remove.append(f"""    if ({is_p}) {{
        if ({p.name}_ == other) {{
            notifyModifying({p.name}Index);
            {p.name}_.reset();
        }}
        return;
    }}
""")
            associate.append(f"""    if ({is_p}) {{
        notifyModifying({p.name}Index);
        {p.type} const child = {p.type}::fromImpl(::kivra::detail::elementAs<{p.type}::Impl>(other));
        if (child.get())
            _setContainedByThis(child.get(), property);
        {p.name}_ = child;
        return;
    }}
""")
        elif k == "container-end":
            feature = f"{p.type}::Impl::{p.opposite}Property()"
            add.append(f"""    if ({is_p}) {{
        notifyModifying({p.name}Index);
        if (!isTopLevel())
            makeUncontained();
        basicSetContainer(other.get(), {feature}, {p.name}Index);
        return;
    }}
""")
            remove.append(f"""    if ({is_p}) {{
        notifyModifying({p.name}Index);
        basicSetContainer(nullptr, {feature}, {p.name}Index);
        return;
    }}
""")
            associate.append(f"""    if ({is_p}) {{
        basicSetContainer(other.get(), {feature}, {p.name}Index);
        return;
    }}
""")
    sig_other = "::kivra::ModelElement const &other"
    return f"""
void {cls.name}::Impl::inverseAdd({sig_other}, {META}::Property const &property) {{
{"".join(add)}    {base}::inverseAdd(other, property);
}}

void {cls.name}::Impl::inverseRemove({sig_other}, {META}::Property const &property) {{
{"".join(remove)}    {base}::inverseRemove(other, property);
}}

bool {cls.name}::Impl::inverseContainsProxyTo({sig_other}, {META}::Property const &property) const {{
{"".join(contains)}    return {base}::inverseContainsProxyTo(other, property);
}}

void {cls.name}::Impl::basicAssociate({sig_other}, {META}::Property const &property) {{
{"".join(associate)}    {base}::basicAssociate(other, property);
}}
"""


def is_meta(mm):
    """kivra's own metamodel: its description hangs under the package tree of the registry."""
    return mm.ns == "kivra::meta"


# --- the typed query front ----------------------------------------------------------------

# Members of every handle: a property of one of these names gets no static accessor.
HANDLE_MEMBERS = {"get", "reset", "swap", "release", "metaClass", "fromImpl", "create", "createProxy", "Builder",
                  "BuilderWrapper", "Impl", "Constrainables", "Uuid", "CollectionPrivateTag"}
QUERY = "::kivra::query"


def constrainable(mm, p, attachment):
    """The type of the constrainable of `p` with `attachment`; None for a property that is
    not generated (and so cannot be read by a query either)."""
    k = mm.kind(p)
    if k in ("value", "optional"):
        optional = 1 if k == "optional" else 0
        return f"{QUERY}::ConstrainableWithAttachment<{native(p)}, {attachment}, {optional}>"
    if k in ("reference", "composite", "container-end"):
        return f"{QUERY}::ConstrainableRelationWithAttachment<{p.type}, {attachment}>"
    if k in COLLECTION_KINDS:
        return f"{QUERY}::ConstrainableCollectionWithAttachment<{p.type}, {attachment}>"
    # A list or set of plain values matches when any of its entries does.
    if k == "values" and (p.type in PRIMITIVES or is_enum(p)):
        return f"{QUERY}::ConstrainableWithAttachment<{native(p)}, {attachment}, 0>"
    return None


def accessors(mm, cls):
    return [p for p in cls.props
            if p.name not in HANDLE_MEMBERS and p.name not in mm.classes and constrainable(mm, p, "") is not None]


def handle_query_includes(mm):
    natives = {native(p) for c in mm.order() for p in accessors(mm, c) if mm.kind(p) in ("value", "optional", "values")}
    out = "#include <kivra/query/Fwd.hpp>\n"
    if "basalt::ustring" in natives:
        out += "\n#include <basalt/ustring.hpp>\n"
    if "boost::posix_time::ptime" in natives:
        out += "\nnamespace boost::posix_time {\nclass ptime;\n} // namespace boost::posix_time\n"
    if "std::string" in natives:
        out += "\n#include <string>\n"
    return out


def handle_forward_declarations(mm):
    """The handles name each other in the types of their property accessors."""
    return "\n" + "".join(f"class {cls.name};\n" for cls in mm.order())


def handle_query_members(mm, cls):
    attachment = f"{QUERY}::MetaclassAttachment<{cls.name}>"
    out = [f"""
    /// One search instance of `{cls.name}` elements in a typed query; in `{mm.header(cls.name + "Constrainables")}`.
    class Constrainables;
    /// The element itself in a query, before its instance is chosen: a reference equated
    /// with it joins the two.
    static {QUERY}::IdentityConstrainable<{attachment}> Uuid();
"""]
    for p in accessors(mm, cls):
        out.append(f"    /// `{p.name}` in a query, before its instance is chosen.\n")
        out.append(f"    static {constrainable(mm, p, attachment)} {p.name}();\n")
    return "".join(out)


def write_constrainables_header(mm, cls):
    base = "::kivra::ModelElement" if cls.superclass not in mm.classes else cls.superclass
    includes = [f"{mm.prefix}/Handles.hpp", "kivra/query/Constrainables.hpp"]
    if cls.superclass in mm.classes:
        includes.append(mm.header(cls.superclass + "Constrainables"))
    members = "".join(f"    {constrainable(mm, p, QUERY + '::InstanceAttachment')} {p.name};\n"
                      for p in cls.props if constrainable(mm, p, "") is not None)
    mode = f"{QUERY}::SearchClassMatchMode"
    return f"""{mm.banner}#pragma once
/// \\file
/// The query view of `{cls.name}`: one search instance of a typed query.

{"".join(f"#include <{i}>{chr(10)}" for i in sorted(includes))}
#include <utility>

namespace {mm.ns} {{

/// The `{cls.name}` elements of one search instance of a typed query, with one
/// constrainable per property; its operators give the constraints that `AbstractQuery::add`
/// takes. It cannot be copied: its constrainables point at it.
class {cls.name}::Constrainables : public {base}::Constrainables {{
public:
    /// Adds `cls`, `{cls.name}` or a subclass, as a search instance of `query`.
    Constrainables({QUERY}::AbstractQuery &query, ::kivra::meta::Class const &cls, {mode} mode);
    /// Adds `{cls.name}` as a search instance of the query.
    explicit Constrainables(std::pair<{QUERY}::AbstractQuery &, {mode} const> const &on);

    /// The instance stands for `element` only; hides the superclass's form, so that an
    /// element of a superclass does not compile.
    {QUERY}::SpecificValueConstraint<{QUERY}::InstanceAttachment, {cls.name}> operator==({cls.name} const &element) {{
        return {{element, {QUERY}::InstanceAttachment(*this)}};
    }}

{members}}};

}} // namespace {mm.ns}
"""


def write_constrainables_source(mm, cls):
    base = "::kivra::ModelElement" if cls.superclass not in mm.classes else cls.superclass
    attachment = f"{QUERY}::MetaclassAttachment<{cls.name}>"
    mode = f"{QUERY}::SearchClassMatchMode"
    inits = "".join(f",\n      {p.name}(Impl::{p.name}Property(), {QUERY}::InstanceAttachment(*this))"
                    for p in cls.props if constrainable(mm, p, "") is not None)
    statics = "".join(f"\n{constrainable(mm, p, attachment)} {cls.name}::{p.name}() {{ return {{Impl::{p.name}Property(), {{}}}}; }}\n"
                      for p in accessors(mm, cls))
    return f"""{mm.banner}#include <{mm.header(cls.name + "Constrainables")}>

#include <{mm.header(cls.name)}>

namespace {mm.ns} {{

{cls.name}::Constrainables::Constrainables({QUERY}::AbstractQuery &query, ::kivra::meta::Class const &cls, {mode} mode)
    : {base}::Constrainables(query, cls, mode){inits} {{}}

{cls.name}::Constrainables::Constrainables(std::pair<{QUERY}::AbstractQuery &, {mode} const> const &on)
    : Constrainables(on.first, {cls.name}::metaClass(), on.second) {{}}

{QUERY}::IdentityConstrainable<{attachment}> {cls.name}::Uuid() {{ return {{}}; }}
{statics}
}} // namespace {mm.ns}
"""


def package_class(mm):
    if is_meta(mm):
        return "MetaPackageMeta"
    return mm.package.name[0].upper() + mm.package.name[1:] + "Package"


SHAPE = {"Optional": "Optional", "Single": "Single", "Sequence": "Sequence", "SortedSet": "SortedSet",
         "HashSet": "HashSet", "Map": "Map", "HashMap": "HashMap", "Multimap": "Multimap", "HashMultimap": "HashMultimap"}
CORE_CLASSES = ("ModelElement", "Model", "ModelConstellation")


def described_types(mm):
    """Classes in dependency order, then data types, in the order of the tables."""
    return mm.order() + [c for c in mm.classes.values() if c.datatype]


def handle_of(mm, type_name):
    """The expression that gives the description of a type named in the tables."""
    if type_name in mm.classes:
        return f"e.{'d' if mm.classes[type_name].datatype else 'c'}_{type_name}"
    if type_name in ENUMS:
        return f"e.e_{type_name}"
    if type_name in CORE_CLASSES:
        return f"::kivra::{type_name}::metaClass()"
    if type_name in BUILTIN_DATATYPES:
        return f"{BUILTIN_DATATYPES[type_name]}::dataType()"
    return f"registry().getType(u\"{type_name}\")"


def op_uuid(mm, cls, op, arg=None):
    path = f"{mm.dotted}.{cls.name}.{op.name}()" + (f".{arg}" if arg else "")
    return str(uuidlib.uuid3(UUID_NAMESPACE, path))


def handle_members(mm):
    """The handles of the description, as members of the package class."""
    out = []
    for enum in ENUMS.values():
        out.append(f"        Enum e_{enum.name};\n")
        out += [f"        EnumLiteral l_{enum.name}_{name};\n" for name, _, _ in enum.literals]
    for cls in described_types(mm):
        out.append(f"        {'DataType d' if cls.datatype else 'Class c'}_{cls.name};\n")
        out += [f"        Property p_{cls.name}_{p.name};\n" for p in cls.props]
        for op in cls.ops:
            out.append(f"        Operation o_{cls.name}_{op.name};\n")
            out += [f"        Argument a_{cls.name}_{op.name}_{a[0]};\n" for a in op.args]
    return "".join(out)


def write_package_header(mm):
    name = package_class(mm)
    common = f"""
    /// The description's elements, by kind: `c_` classes, `d_` data types, `e_` enums and
    /// `l_` their literals, `p_` properties, `o_` operations and `a_` their arguments,
    /// named after their owners. Generated code compares properties with them by identity.
    struct Elements {{
{handle_members(mm)}    }};
    Elements const &elements() const noexcept {{ return elements_; }}
"""
    if is_meta(mm):
        body = f"""/// Builds the description of kivra's own metamodel in the registry model, through the
/// ordinary builders and transactions, the first time the registry is asked for: the
/// package tree (the root package, `kivra`, `kivra.meta`), the classes of models and
/// elements, and every metaclass with its properties and operations. `meta::Class` is
/// an instance of itself.
class {name} final : public AbstractMetaPackage {{
public:
    /// The one description; asking for it builds the registry, and the registry builds it.
    static {name} &getInstance();
    ~{name}() override;

    /// Builds the whole description again: a root package made earlier is unregistered and
    /// destroyed first, so that one stays.
    void initialize();
    void instantiate_kivra(MetaRegistry *registry);
    void instantiate_kivra_meta(MetaRegistry *registry);
    void weave_kivra(MetaRegistry *registry, PropertySerializerRegistry *serializers);
    void weave_kivra_meta(MetaRegistry *registry, PropertySerializerRegistry *serializers);
    /// Runs at destruction, in the order of adding.
    void addCleanup(std::function<void()> cleanup);

    /// The root package: empty name, the registry's schema URI for family "meta".
    Package const &getRootPackage() const noexcept {{ return root_; }}
    Package const &getKivraPackage() const noexcept {{ return kivra_; }}
    Package const &getPackage() const noexcept {{ return package_; }}
    /// The primitive type of models held as values.
    PrimitiveType const &getKivraModelType() const noexcept {{ return kivraModel_; }}
{common}
private:
    friend MetaRegistry;
    {name}();

    Package root_;
    Package kivra_;
    Package package_;
    PrimitiveType kivraModel_;
    std::vector<std::function<void()>> cleanups_;
    Elements elements_;
}};
"""
        includes = "#include <kivra/meta/AbstractMetaPackage.hpp>\n#include <kivra/meta/Handles.hpp>\n\n#include <functional>\n#include <vector>\n"
    else:
        body = f"""/// Enters the package `{mm.package.name}`, its classes and their properties into the registry
/// the first time any of them is asked for, and keeps them there.
class {name} final : public ::kivra::meta::AbstractMetaPackage {{
public:
    /// The one description, made on the first call.
    static {name} &getInstance();
    ::kivra::meta::Package const &getPackage() const noexcept {{ return package_; }}
{common}
private:
    {name}();
    void instantiate();
    void weave(::kivra::meta::PropertySerializerRegistry &serializers);

    ::kivra::meta::Package package_;
    Elements elements_;
}};
"""
        includes = "#include <kivra/meta/AbstractMetaPackage.hpp>\n#include <kivra/meta/Handles.hpp>\n"
    if not is_meta(mm):
        body = body.replace("        Enum e_", "        ::kivra::meta::Enum e_").replace("        EnumLiteral l_", "        ::kivra::meta::EnumLiteral l_")
        for kind in ("DataType", "Class", "Property", "Operation", "Argument"):
            body = body.replace(f"        {kind} ", f"        ::kivra::meta::{kind} ")
    return f"""{mm.banner}#pragma once
/// \\file
/// The description of the package `{mm.package.name}` in the registry.

{includes}
namespace {mm.ns} {{

{body}
}} // namespace {mm.ns}
"""


def instantiate_body(mm):
    """Creates every element of the description with its own values, and gives the generated
    classes their handles: nothing refers to anything else yet."""
    out = ["    Elements &e = elements_;\n"]
    for enum in ENUMS.values():
        out.append(f"    e.e_{enum.name} = createEnum(u\"{enum.name}\", \"{enum.uuid}\");\n")
        for lit, value, ident in enum.literals:
            var = f"e.l_{enum.name}_{lit}"
            out.append(f"    {var} = createEnumLiteral(u\"{lit}\", {value}, \"{uuidlib.uuid3(UUID_NAMESPACE, f'{mm.dotted}.{enum.name}.{lit}')}\");\n")
            if ident:
                out.append(f"    {var}->setPublicIdentifier(basalt::ustring(u\"{ident}\"));\n")
    for cls in described_types(mm):
        if cls.datatype:
            out.append(f"    e.d_{cls.name} = createDataType(u\"{cls.name}\", \"{mm.dotted}.{cls.name}\", \"{cls.uuid}\");\n")
        else:
            out.append(f"    e.c_{cls.name} = createClass(u\"{cls.name}\", \"{mm.dotted}.{cls.name}\", {str(cls.abstract).lower()}, \"{cls.uuid}\");\n")
        for p in cls.props:
            var = f"e.p_{cls.name}_{p.name}"
            out.append(f"    {var} = createProperty(u\"{p.name}\", ::kivra::ValueFlags::{SHAPE[p.shape]}, {str(p.composite).lower()}, \"{mm.property_uuid(p)}\");\n")
            if p.index:
                out.append(f"    setPropertyIndex({var}, {p.index});\n")
            if p.default:
                out.append(f"    {var}->setDefaultValue(basalt::ustring(u\"{p.default}\"));\n")
            if "nonUnique" in p.notes or (p.shape in ("Sequence", "Map", "Multimap") and "derived" in p.notes):
                out.append(f"    {var}->setIsUnique(false);\n")
            for note, setter in (("derived", "setIsDerived"), ("readOnly", "setIsReadOnly"), ("transient", "setIsTransient"),
                                 ("sparse", "setIsSparse")):
                if note in p.notes:
                    out.append(f"    {var}->{setter}(true);\n")
            if "noPublicAccessor" in p.notes:
                out.append(f"    {var}->setIsPublicAccessor(false);\n")
            if "noPublicMutator" in p.notes:
                out.append(f"    {var}->setIsPublicMutator(false);\n")
        for op in cls.ops:
            var = f"e.o_{cls.name}_{op.name}"
            out.append(f"    {var} = createOperation(u\"{op.name}\", \"{op_uuid(mm, cls, op)}\", {'true' if op.result else 'false'}, {str(op.many).lower()});\n")
            if op.abstract:
                out.append(f"    {var}->setIsAbstract(true);\n")
            if not op.public:
                out.append(f"    {var}->setIsPublic(false);\n")
            for arg, _, ordered, many in op.args:
                out.append(f"    e.a_{cls.name}_{op.name}_{arg} = createArgument(u\"{arg}\", \"{op_uuid(mm, cls, op, arg)}\", {str(ordered).lower()}, {str(many).lower()});\n")
    for enum in ENUMS.values():
        out.append(f"    {enum.name}Slot() = e.e_{enum.name};\n")
    for cls in mm.order():
        out.append(f"    {META}::detail::metaclassSlot(::kivra::parseUuidLiteral(\"{cls.uuid}\")) = e.c_{cls.name};\n")
        for p in cls.props:
            if p.index:
                out.append(f"    {META}::detail::propertySlot(::kivra::parseUuidLiteral(\"{mm.property_uuid(p)}\")) = e.p_{cls.name}_{p.name};\n")
    return "".join(out)


def weave_body(mm):
    """Connects the elements: packages, superclasses, owners, types, opposites, keys; then
    registers the types with their builders."""
    out = ["    Elements &e = elements_;\n"]
    for enum in ENUMS.values():
        out.append(f"    e.e_{enum.name}->setOwningPackage(package_);\n")
        out.append(f"    e.e_{enum.name}->setUnderlyingType(registry().getPrimitiveType(u\"Integer\"));\n")
        out += [f"    e.l_{enum.name}_{lit}->setParentEnum(e.e_{enum.name});\n" for lit, _, _ in enum.literals]
    for cls in described_types(mm):
        h = handle_of(mm, cls.name)
        out.append(f"    {h}->setOwningPackage(package_);\n")
        if not cls.datatype:
            out.append(f"    {h}->setSuperclass({handle_of(mm, cls.superclass)});\n")
        for p in cls.props:
            var = f"e.p_{cls.name}_{p.name}"
            out.append(f"    {var}->setOwningType({h});\n")
            out.append(f"    {var}->setType({handle_of(mm, p.type)});\n")
            if p.opposite:
                far = mm.opposite_of(p)
                out.append(f"    {var}->setOpposite(e.p_{far.owner}_{far.name});\n")
            if p.qualified_by:
                key = mm.find_property(p.type, p.qualified_by) if p.type in mm.classes else None
                if key is not None:
                    out.append(f"    {var}->setQualifiedBy(e.p_{key.owner}_{key.name});\n")
        for op in cls.ops:
            var = f"e.o_{cls.name}_{op.name}"
            out.append(f"    {var}->setOwningType({h});\n")
            if op.result:
                out.append(f"    {var}->setType({handle_of(mm, op.result)});\n")
            for arg, type_name, _, _ in op.args:
                out.append(f"    e.a_{cls.name}_{op.name}_{arg}->setOperation({var});\n")
                out.append(f"    e.a_{cls.name}_{op.name}_{arg}->setType({handle_of(mm, type_name)});\n")
    for enum in ENUMS.values():
        out.append(f"    registry().registerType(e.e_{enum.name});\n")
    for cls in described_types(mm):
        h = handle_of(mm, cls.name)
        if cls.datatype or cls.abstract:
            out.append(f"    registry().registerType({h});\n")
        else:
            out.append(f"    registry().registerType({h}, [](::kivra::Model const &model) -> std::unique_ptr<::kivra::ModelElement::Builder> {{ return std::make_unique<{cls.name}::Builder>(model); }});\n")
            out.append(f"    registry().registerProxyFactory({h}, [](::kivra::Model const &model, ::kivra::ProxyId const &id) {{ return ::kivra::ModelElement({cls.name}::createProxy(model, id)); }});\n")
    return "".join(out)


# --- serializers of enums and data types ---------------------------------------------------

# kivra's own data types have hand-written native classes in kivra/meta.
HANDWRITTEN_DATATYPES = ("ExtensionPrototype", "TransactionOrigin", "VersionInfo")


def datatypes(mm):
    return [c for c in mm.classes.values() if c.datatype]


def datatype_native(mm, cls):
    return f"{META}::{cls.name}" if is_meta(mm) else cls.name


def datatype_header(mm, cls):
    return f"kivra/meta/{cls.name}.hpp" if is_meta(mm) else mm.header(cls.name)


def datatype_field_fault(prop):
    """Why a property cannot be a field of a generated data type; None when it can."""
    if prop.index == 0:
        return f"'{prop.name}': a data type has no derived properties"
    if prop.type in PRIMITIVES and prop.shape in ("Single", "Optional"):
        return None
    if prop.type in ENUMS and prop.shape == "Single":
        return None
    return f"'{prop.name}': a data type holds single or optional primitive values and single enum values only"


def field_type(prop):
    return f"boost::optional<{native(prop)}>" if prop.shape == "Optional" else native(prop)


def field_value(prop):
    """The `Value` of the field `prop` of `object`."""
    get = f"object.get{prop.cap}()"
    if is_enum(prop):
        return f"::kivra::Value(property->getType(), static_cast<std::uint64_t>(static_cast<std::int64_t>({get})))"
    if prop.shape == "Optional":
        return f"::kivra::Value(property->getType(), {get}, false)"
    return f"::kivra::Value({get})"


def field_of(prop, native_type):
    """The field `prop` that `value` stands for: its default when the value holds nothing."""
    if is_enum(prop):
        read = f"static_cast<{prop.type}>(static_cast<std::int64_t>(value.get<std::uint64_t>()))"
    elif prop.shape == "Optional":
        read = f"boost::optional<{native(prop)}>(value.get<{native(prop)}>())"
    else:
        read = f"value.get<{native(prop)}>()"
    return f"value.hasPayload() ? {read} : {native_type}().get{prop.cap}()"


def literal_table(mm, enum):
    """The literals of an enum ordered by name, as the enum's literal map orders them, so
    that a number two literals share reads as the same one everywhere."""
    rows = "".join(f"    {{u\"{name}\", {value}, u\"{ident}\"}},\n" for name, value, ident in sorted(enum.literals))
    return f"constexpr {META}::EnumLiteralEntry {enum.name}Literals[] = {{\n{rows}}};\n"


def datatype_serializer_class(mm, cls):
    t = datatype_native(mm, cls)
    name = f"{cls.name}DatatypeSerializer"
    members = "".join(f"    {META}::Property {p.name}_;\n" for p in cls.props)
    inits = "".join(f", {p.name}_(e.p_{cls.name}_{p.name})" for p in cls.props)
    gets = "".join(f"        if (property == {p.name}_)\n            return {field_value(p)};\n" for p in cls.props)
    sets = "".join(f"        if (property == {p.name}_) {{\n            object.set{p.cap}({field_of(p, t)});\n            return;\n        }}\n"
                   for p in cls.props)
    return f"""
/// Reads and writes the fields of `{cls.name}` values by the handles of its properties.
class {name} final : public {META}::DatatypeSerializerOf<{t}> {{
public:
    explicit {name}({package_class(mm)}::Elements const &e) : DatatypeSerializerOf(e.d_{cls.name}){inits} {{}}

    ::kivra::Value doGetPropertyValue({t} const &object, {META}::Property const &property) const override {{
{gets}        raiseNoSuchProperty(property);
    }}
    void doSetPropertyValue({t} &object, {META}::Property const &property, ::kivra::Value const &value) const override {{
{sets}        raiseNoSuchProperty(property);
    }}

private:
{members}}};
"""


def serializer_definitions(mm):
    """The literal tables of the enums and the serializer classes of the data types."""
    if not ENUMS and not datatypes(mm):
        return ""
    body = "".join(literal_table(mm, e) for e in ENUMS.values())
    body += "".join(datatype_serializer_class(mm, c) for c in datatypes(mm))
    return f"\nnamespace {{\n\n{body}\n}} // namespace\n"


def register_serializers(mm, serializers):
    """Hands the serializers of the package's enums and data types to the registry."""
    out = []
    flavours = (("AsName", ""), ("AsValue", "ID"), ("AsPublicId", "PublicID"))
    for enum in ENUMS.values():
        for form, flavour in flavours:
            out.append(f"    registerPropertySerializer({serializers}, e.e_{enum.name}, std::make_unique<{META}::EnumPropertySerializer{form}<{enum.name}>>({enum.name}Literals), \"{flavour}\");\n")
    for cls in datatypes(mm):
        out.append(f"    registerDatatypeSerializer({serializers}, e.d_{cls.name}, std::make_unique<{cls.name}DatatypeSerializer>(e));\n")
    return "".join(out)


def write_datatype_header(mm, cls):
    """The native value class of a data type of a user's tables."""
    includes = {"basalt/ustring.hpp", "cstdint", "tuple"}
    if any(p.shape == "Optional" for p in cls.props):
        includes.add("boost/optional/optional.hpp")
    if any(p.type == "UUID" for p in cls.props):
        includes.add("boost/uuid/uuid.hpp")
    if any(p.type == "StdString" for p in cls.props):
        includes.add("string")
    if any(p.type == "DateTime" for p in cls.props):
        includes.add("boost/date_time/posix_time/ptime.hpp")
    if any(is_enum(p) for p in cls.props):
        includes.add(mm.header("Handles"))
    if any(p.type == "DateTime" and p.default for p in cls.props) or any(p.type == "UUID" and p.default for p in cls.props):
        includes.add("kivra/detail/DynamicDefaults.hpp")
    accessors = []
    for p in cls.props:
        ret = f"{field_type(p)} const &" if p.shape == "Optional" or PRIMITIVES.get(p.type, ("", False))[1] else f"{field_type(p)} "
        arg = f"{field_type(p)} const &" if p.shape == "Optional" or PRIMITIVES.get(p.type, ("", False))[1] else f"{field_type(p)} "
        accessors.append(f"    {ret}get{p.cap}() const noexcept {{ return {p.name}_; }}\n")
        accessors.append(f"    void set{p.cap}({arg}{p.name}) {{ {p.name}_ = {p.name}; }}\n")
    fields = "".join(f"    {field_type(p)} {p.name}_{initial(p) if p.shape == 'Single' else '{}'};\n" for p in cls.props)
    tie_a = ", ".join(f"a.{p.name}_" for p in cls.props)
    tie_b = ", ".join(f"b.{p.name}_" for p in cls.props)
    return f"""{mm.banner}#pragma once
/// \\file
/// The values of the data type `{cls.name}`.

{"".join(f"#include <{i}>" + chr(10) for i in sorted(includes))}
namespace {mm.ns} {{

/// The values of the data type `{cls.name}`: one field per property, read and written by
/// its serializer in the registry. A value type, ordered field by field.
class {cls.name} {{
public:
{"".join(accessors)}
    friend bool operator==({cls.name} const &, {cls.name} const &) = default;
    friend bool operator<({cls.name} const &a, {cls.name} const &b) {{
        return std::tie({tie_a}) < std::tie({tie_b});
    }}

private:
{fields}}};

}} // namespace {mm.ns}
"""


def write_package_source(mm):
    name = package_class(mm)
    classes = mm.order()
    enum_slots = "".join(f"""
namespace {{
::kivra::meta::Enum &{e.name}Slot() {{
    static ::kivra::meta::Enum slot;
    return slot;
}}
}} // namespace

::kivra::meta::Enum const &metaEnum({e.name}) {{
{slot_guard(mm)}    static ::kivra::meta::Enum const &slot = {e.name + "Slot()" if is_meta(mm) else f"({slot_trigger(mm)}, {e.name}Slot())"};
    return slot;
}}
""" for e in ENUMS.values())
    out = [mm.banner, f"#include <{mm.prefix}/{name}.hpp>\n\n"]
    out += [f"#include <{mm.header(cls.name)}>\n" for cls in classes]
    out += [f"#include <{i}>\n" for i in sorted({"kivra/ElementId.hpp", "kivra/UuidLiteral.hpp", "kivra/Model.hpp", "kivra/ModelConstellation.hpp",
                                                 "kivra/meta/Argument.hpp", "kivra/meta/Class.hpp", "kivra/meta/DataType.hpp",
                                                 "kivra/meta/Enum.hpp", "kivra/meta/EnumLiteral.hpp", "kivra/meta/Operation.hpp",
                                                 "kivra/meta/Package.hpp", "kivra/meta/PrimitiveType.hpp", "kivra/meta/Property.hpp",
                                                 "kivra/meta/detail/Metaclasses.hpp"} - {mm.header(c.name) for c in classes})]
    if any(p.type in BUILTIN_DATATYPES and p.type not in mm.classes for cls in classes for p in cls.props):
        out.append("#include <kivra/meta/VersionInfo.hpp>\n")
    serializer_includes = set()
    if ENUMS:
        serializer_includes.add("kivra/meta/EnumPropertySerializers.hpp")
    if datatypes(mm):
        serializer_includes.add("kivra/meta/DatatypeSerializers.hpp")
        serializer_includes |= {datatype_header(mm, c) for c in datatypes(mm)}
    if ENUMS or datatypes(mm) or not is_meta(mm):
        serializer_includes |= {"kivra/meta/PropertySerializerRegistry.hpp", "memory"}
    out += [f"#include <{i}>\n" for i in sorted(serializer_includes)]
    if is_meta(mm):
        head = f"""
namespace {mm.ns} {{
{enum_slots}{serializer_definitions(mm)}
void {name}::instantiate_kivra_meta(MetaRegistry *) {{
    package_ = createPackage(u"{mm.package.name}", u"{mm.package.uri}");
{instantiate_body(mm)}}}

void {name}::weave_kivra_meta(MetaRegistry *, PropertySerializerRegistry *serializers) {{
    package_->setParentPackage(kivra_);
{weave_body(mm)}{register_serializers(mm, "*serializers")}}}
"""
    else:
        head = f"""
namespace {mm.ns} {{

{name} &{name}::getInstance() {{
    static {name} *const instance = new {name}(); // lives as long as the registry
    return *instance;
}}
{enum_slots}{serializer_definitions(mm)}
{name}::{name}() {{
    // Asked for before the registry's lock is taken, which its making takes too.
    auto &serializers = ::kivra::meta::PropertySerializerRegistry::getInstance();
    begin();
    package_ = createPackage(u"{mm.package.name}", u"{mm.package.uri}");
    instantiate();
    weave(serializers);
    finish();
}}

void {name}::instantiate() {{
{instantiate_body(mm)}}}

void {name}::weave([[maybe_unused]] ::kivra::meta::PropertySerializerRegistry &serializers) {{
{weave_body(mm)}{register_serializers(mm, "serializers")}}}
"""
    out.append(head)
    out.append(f"\n}} // namespace {mm.ns}\n")
    return "".join(out)


def outputs(mm, headers, sources):
    files = {headers / "Handles.hpp": write_handles(mm)}
    for cls in mm.order():
        files[headers / f"{cls.name}.hpp"] = write_header(mm, cls, headers / "detail")
        files[sources / f"{cls.name}.cpp"] = write_source(mm, cls)
    for cls in mm.order():
        files[headers / f"{cls.name}Constrainables.hpp"] = write_constrainables_header(mm, cls)
        files[sources / f"{cls.name}Constrainables.cpp"] = write_constrainables_source(mm, cls)
    if not is_meta(mm):
        for cls in datatypes(mm):
            files[headers / f"{cls.name}.hpp"] = write_datatype_header(mm, cls)
    if mm.described():
        files[headers / f"{package_class(mm)}.hpp"] = write_package_header(mm)
        files[sources / f"{package_class(mm)}.cpp"] = write_package_source(mm)
    return files


METAMODELS = [
    # tables, namespace, headers, sources, include prefix
    ("src/meta/Metamodel.tables", "kivra::meta", "include/kivra/meta", "src/meta/generated", "kivra/meta"),
    ("tests/support/Library.tables", "kivra::test::library", "tests/support/library", "tests/support/library",
     "library"),
    ("examples/Notes.tables", "notes", "examples/notes", "examples/notes", "notes"),
    ("bench/Workload.tables", "kivra::bench::workload", "bench/workload", "bench/workload", "workload"),
]


def outputs_of(tables, namespace, headers, sources, prefix):
    classes, package = parse(tables)
    mm = Metamodel(classes, package, namespace, prefix, tables.name)
    return [str(path) for path in outputs(mm, headers, sources)]


def run(tables, namespace, headers, sources, prefix, check):
    classes, package = parse(tables)
    mm = Metamodel(classes, package, namespace, prefix, tables.relative_to(ROOT) if tables.is_relative_to(ROOT) else tables)
    stale = []
    for path, text in outputs(mm, headers, sources).items():
        if path.exists() and path.read_text() == text:
            continue
        if check:
            stale.append(path)
        else:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
    return stale


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--check", action="store_true", help="report stale files instead of writing them")
    parser.add_argument("--tables", type=Path)
    parser.add_argument("--namespace")
    parser.add_argument("--headers", type=Path)
    parser.add_argument("--sources", type=Path)
    parser.add_argument("--include-prefix")
    parser.add_argument("--list", action="store_true", help="print the files that would be written, separated by ';'")
    args = parser.parse_args()
    if args.tables and not (args.namespace and args.headers and args.sources and args.include_prefix):
        parser.error("--tables needs --namespace, --headers, --sources and --include-prefix")
    if args.tables:
        jobs = [(args.tables, args.namespace, args.headers, args.sources, args.include_prefix)]
    else:
        jobs = [(ROOT / t, ns, ROOT / h, ROOT / s, p) for t, ns, h, s, p in METAMODELS]
    stale = []
    try:
        for tables, namespace, headers, sources, prefix in jobs:
            if args.list:
                print(*outputs_of(tables, namespace, headers, sources, prefix), sep=";", end="")
                continue
            stale += run(tables, namespace, headers, sources, prefix, args.check)
    except TablesError as error:
        print(error, file=sys.stderr)
        return 2
    except OSError as error:
        print(f"kivra-metagen: {error}", file=sys.stderr)
        return 2
    if stale:
        print("stale generated files (run tools/metagen.py):", *stale, sep="\n  ")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
