#!/usr/bin/env python3
"""entitygen: writes the C++ header and source of the types in one description.

A description (*.ent) holds a namespace and types; the headers it needs follow from the types it uses
(the other descriptions under --src and the hand-written types of known_types.txt):

    namespace Routing::Multicast::Fib

    # The configuration of one VRF.          <- comment lines above a type
    entity Config                             #    become its class comment
      factory none                            # no ConfigIs(name)
      factory configFactory(size, refs)       # ... or a named factory of the attributes set at construction
      mount routing/x routing6/x              # static mountPath(family)
      mount routing/x routing6/x vrf-application   # mountPath(family, vrf, application): <path>/<vrf>/<application>
      enum MultipathControl: a b c            # nested enumeration, values 0..
      attr routing: bool = false              # x(), xIs()
      attr size: u32 ctor                     # x() only, set by the constructor
      attr late: bool = false id 263          # an explicit attribute id (ids count on from it)
      attr enabled: bool = false custom       # x() generated, xIs(v) hand-written (it stores with Kiv::attrIs)
      counter clearMfibCount: u8 = 0          # x(), xIs(), xInc(n) and xDec(n) returning the new value
      const fastdropDefault: bool = true      # static x(); takes an id only
      const prefixGroup: Orvet::IpGenPrefix = "224.0.0.0/4"   # a constant of any value type, read from its text
      coll counterRoute: IpGenRouteKey -> bool          # keyed values
      coll ordered: Kiv::Name -> u32 ordered            # ... in key order
      coll toAdd: GroupKey -> Request keyed key         # whole records filed under their own key()
      coll status: L3::VrfName -> Kiv::Ptr<Status>      # counted references to entities
      child config: Kiv::Name -> Config                 # child entities (keyed by any value type)
      table route: IpGenRouteKey -> Route capacity 12000   # a shared-memory table (KivBrume::KivBrumeMap)
      ref owner: Owner                        # a counted reference (Kiv::Ptr), notified on change
      ref parentStatus: Owner valid           # ... that may never be null ("null ValidPtr")
      backptr up: Owner                       # a plain pointer: not counted, notified or replicated
      check range(minIndex, size)             # static range(minIndex, size), hand-written, throws to refuse;
                                              # the constructor and minIndexIs/sizeIs call it first
      method double density() const           # a hand-written operation, declared as written
      method protected virtual int proto() const   # ... among the protected members
      state seams: Seams                      # hand-written data held as seams_ for those operations:
                                              # no id, never notified, logged or registered
      reset routing counterRoute              # what reset()/isDefault() cover
      init configIs("default");               # doInit() body, run by the constructor
    entity Kind : Message                     # inherits Message's attributes; ids count on after them
    entity Alert : Message(Kind::alert)       # ... its constructor gives Message's constructor more than the name
    entity Socket : Orvet::Pam                # a base described in any description of --src, by any name
                                              # that resolves from here; ids count on after the base's

    enum CounterMode: None packetMode byteMode
    value Pair                                # a value type (no fields: every two are equal)
      field low: u16 = 1 range 1..4094        # checked: "Pair::low < 1 or > 4094 not allowed"
      field high: u8 max 0x3f                 # checked: "Pair::high > 0x3f not allowed"
    value Mask                                # fields packed into one word, lowest bits first
      field mask: u8 bits 2                   # checked: "Mask::mask > 0x3 not allowed"
      field value: u8 bits 2
    flags HwFlags: u8 noRoute noIntfs         # flag word over Kiv::FlagSet, bit 0 first
    flags IifFlags: u32 noRpf
      name Brume::Multicast::Fib::Route::IifFlags   # text-form and registry name, if not <namespace>::<type>
      text bare                               # prints as the boolean of its only flag
    bounded OifIndex: u16 = 512 range 0..512  # one number over Kiv::BoundedValue; prints as the number
      error "OifIndex::value < OifIndex::min or > OifIndex::null not allowed"
      const min = 0                           # static const OifIndex min
      const null = 512 test isNull            # ... and bool isNull() const
      const invalid() = 65534 test !isValid   # static invalid() and bool isValid() (false for it alone)
      number kPositions = 512                 # static constexpr uint16_t

Attribute ids count from 258 in declaration order within each entity. Every generated member is one call
into mroute/entity/*.h (or mroute/kivbrume/*.h for tables). The pieces: parser.py reads, model.py holds
the types and the catalog with the type check, emit_*.py write one kind each.
Standard library only: this is a build tool.
"""

import argparse
import difflib
import os
import sys

sys.dont_write_bytecode = True  # leave no cache in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from emit_entity import emit_entity  # noqa: E402
from emit_enum import emit_enum  # noqa: E402
from emit_value import emit_value  # noqa: E402
from emit_word import emit_bounded, emit_flags  # noqa: E402
from emit_attr_log import HEADER as ATTR_LOG_HEADER  # noqa: E402
from emit_common import fill  # noqa: E402
from model import Catalog, DescriptionError, check_types, default_catalog, inherited_members  # noqa: E402
from parser import parse  # noqa: E402

__all__ = ['Catalog', 'DescriptionError', 'KNOWN_TYPES', 'generate', 'parse']
KNOWN_TYPES = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'known_types.txt')

HEADER = '''\
// Generated by tools/entitygen/entitygen.py from {{SOURCE}}; do not edit.
//
// Thread-safety: an entity, its collections and its notifiees belong to one
// event loop; values and enumerations are plain copies.
#pragma once

{{INCLUDES}}
namespace {{NS}} {
{{DECLS}}
}  // namespace {{NS}}
{{AFTER}}'''

SOURCE = '''\
// Generated by tools/entitygen/entitygen.py from {{SOURCE}}; do not edit.
#include "{{HEADER}}"

namespace {{NS}} {
{{DEFS}}
namespace {
// Registers the types of this unit, in declaration order, at load.
[[maybe_unused]] const bool registered = ({{REGISTER}}, true);
}  // namespace

}  // namespace {{NS}}
{{AFTER}}
// Linking this symbol (mroute::mroute asks the linker for it) keeps the unit, and so its registrations,
// in a program that links the library statically.
extern "C" void {{ANCHOR}}() {}
'''


def enum_names(types):
    names = set()
    for t in types:
        if t.kind == 'enum':
            names.add(t.name)
        names.update(e.name for e in t.enums)
    return names


def include_lines(d, used_headers):
    """The headers the generated code calls into, then those of the types it uses."""
    kinds = {t.kind for t in d.types}
    system, project = [], []
    if kinds & {'flags', 'bounded'}:
        system = ['cstdint', 'string_view', 'type_traits']
    if kinds & {'entity', 'enum', 'value'}:
        project.append('mroute/entity/entity_support.h')
    if 'entity' in kinds:
        project.append(ATTR_LOG_HEADER)
    if 'flags' in kinds:
        project.append('mroute/entity/flag_set.h')
    if 'bounded' in kinds:
        project.append('mroute/entity/bounded_value.h')
    if 'mroute/entity/entity_support.h' not in project:
        project.append('mroute/entity/kiv/type_registry.h')
    if any(m.kind == 'table' for t in d.types for m in t.members):
        project.append('mroute/kivbrume/table_collection.h')
    if any(t.mount for t in d.types):
        project.append('mroute/runtime/net/address_family.h')
    if any(t.mount_args for t in d.types):
        project.append('mroute/runtime/net/vrf_name.h')
    for h in list(d.includes) + used_headers:
        if h not in project:
            project.append(h)
    lines = ''.join('#include <%s>\n' % h for h in system)
    return lines + ('\n' if lines else '') + ''.join('#include "%s"\n' % h for h in project)


def anchor_name(header_path):
    """The unit's link anchor: mroute_types_ and its header path as an identifier."""
    return 'mroute_types_' + ''.join(c if c.isalnum() else '_' for c in header_path[:-2])


def generate(text, source_name, header_path, catalog=None, path=None):
    d = parse(text, path or source_name, header_path)
    if catalog is None:
        catalog = Catalog()
        catalog.add_known(KNOWN_TYPES)
    catalog.add_description(d)
    used_headers = check_types(d, catalog)
    for t in d.types:
        t.inherited = inherited_members(t, catalog)
    ns, types = d.ns, d.types
    enums = enum_names(types)
    decls, infos, funcs, hashes, defs, kiv_defs, registers = [], [], [], [], [], [], []
    for t in types:
        if t.kind == 'enum':
            dcl, info, f, typedef = emit_enum(ns, t, None)
            decls.append(dcl)
            infos.append(info)
            funcs.append(f)
            kiv_defs.append(typedef)
            registers.append('Kiv::EnumInfo<%s>::type()' % t.name)
        elif t.kind == 'entity':
            dcl, after, definition, enum_defs, regs = emit_entity(ns, t, enums)
            decls.append(dcl)
            for info, f in after:
                infos.append(info)
                funcs.append(f)
            defs.append(definition)
            kiv_defs.extend(enum_defs)
            registers.extend(regs)
        elif t.kind in ('flags', 'bounded'):
            dcl, definition = (emit_flags if t.kind == 'flags' else emit_bounded)(t)
            decls.append(dcl)
            defs.append(definition)
            registers.append('%s::type()' % t.name)
        else:
            dcl, h, definition = emit_value(ns, t, enums)
            # The hash goes right after its type: later types of the unit may key maps by it.
            decls.append(dcl + '\n}  // namespace %s\n%s\nnamespace %s {\n' % (ns, h, ns))
            defs.append(definition)
            registers.append('%s::type()' % t.name)
    entities = [t.name for t in types if t.kind == 'entity']
    if len(entities) > 1:
        # Entities of one description may point at each other (back pointers, references).
        decls.insert(0, '\n' + ''.join('class %s;\n' % e for e in entities))
    after = ''.join(infos) + ''.join(hashes)
    if funcs:
        after += '\nnamespace %s {\n%s\n}  // namespace %s\n' % (ns, ''.join(funcs), ns)
    header = fill(HEADER, SOURCE=source_name, NS=ns, DECLS=''.join(decls), AFTER=after,
                  INCLUDES=include_lines(d, used_headers))
    source = fill(SOURCE, SOURCE=source_name, HEADER=header_path, NS=ns, DEFS=''.join(defs),
                  REGISTER=', '.join(registers), AFTER=''.join(kiv_defs), ANCHOR=anchor_name(header_path))
    return header, source


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument('description', nargs='?', default='')
    ap.add_argument('--out', help='directory of the generated .h and .cc')
    ap.add_argument('--include-prefix', help='include path of the header, less its name')
    ap.add_argument('--src', help='source root whose descriptions (and their include paths) are known')
    ap.add_argument('--check', action='store_true', help='compare with the files in --out instead of writing')
    ap.add_argument('--anchor', action='store_true', help='print the link anchor of the unit and exit')
    ap.add_argument('--list-types', action='store_true',
                    help='print the qualified name of every type described under --src and exit')
    args = ap.parse_args()
    if args.list_types:
        catalog = default_catalog(args.src, None, parse)
        print('\n'.join(sorted(set(catalog.registered))))
        return
    if not (args.description and args.out and args.include_prefix):
        ap.error('a description, --out and --include-prefix are needed')
    stem = os.path.splitext(os.path.basename(args.description))[0]
    header_path = '%s/%s.h' % (args.include_prefix, stem)
    if args.anchor:
        print(anchor_name(header_path))
        return
    with open(args.description) as f:
        text = f.read()
    try:
        catalog = default_catalog(args.src, KNOWN_TYPES, parse)
        outputs = generate(text, os.path.basename(args.description), header_path, catalog, args.description)
    except DescriptionError as e:
        sys.exit('%s: %s' % (args.description, e))
    differs = False
    for suffix, content in zip(('.h', '.cc'), outputs):
        path = os.path.join(args.out, stem + suffix)
        old = open(path).read() if os.path.exists(path) else None
        if args.check:
            if old != content:
                differs = True
                sys.stdout.writelines(difflib.unified_diff((old or '').splitlines(True), content.splitlines(True),
                                                           path, 'regenerated'))
        elif old != content:
            # An unchanged file keeps its time, so what includes it is not rebuilt.
            os.makedirs(args.out, exist_ok=True)
            with open(path, 'w') as f:
                f.write(content)
    sys.exit(1 if differs else 0)


if __name__ == '__main__':
    main()
