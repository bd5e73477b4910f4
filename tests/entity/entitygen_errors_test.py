#!/usr/bin/env python3
"""A wrong description fails in the generator, naming its file and line, instead of producing C++ that
fails to compile or checks the wrong range; and the includes of a header follow from the types it uses."""
import sys
import unittest

# The generator's folder comes first on the command line; unittest reads the rest.
sys.path.insert(0, sys.argv.pop(1))
sys.dont_write_bytecode = True  # leave no cache in the source tree
import entitygen  # noqa: E402


class Rejecting(unittest.TestCase):
    def rejects(self, body, *words, catalog=None):
        with self.assertRaises(entitygen.DescriptionError) as e:
            entitygen.generate('namespace T\n' + body, 't.ent', 't/t.h', catalog)
        for w in words:
            self.assertIn(w, str(e.exception))


class DescriptionErrors(Rejecting):

    def test_flag_words(self):
        self.rejects('flags F: i32 a\n', 'line 2', 'not an unsigned word')
        self.rejects('flags F: u8 a b c d e f g h i\n', '1 to 8 flags')
        self.rejects('flags F: u8 a b\n  text bare\n', '"text bare" needs exactly one flag')
        self.rejects('flags F: u8 a\n  error "x"\n', "'error' does not belong in flags F")

    def test_bounded_values(self):
        self.rejects('bounded B: u8 = 300\n', 'line 2', 'within the word')
        self.rejects('bounded B: u16 = 0 range 1..9\n', 'low <= default')
        self.rejects('bounded B: u16 range 0..9\n  const top = 10\n', 'line 3', 'top = 10 lies outside 0..9')
        self.rejects('bounded B: u16\n  number n = 1 test isN\n', 'cannot read number')
        self.rejects('bounded B: u16\n  const a = 1\n  const a = 2\n', 'a is declared twice')

    def test_limits_reach_the_template(self):
        header, _ = entitygen.generate('namespace T\nbounded B: u64 = 5 max 0xffffffffffffffff\nbounded C: u8 max 0x3f\n',
                                       't.ent', 't/t.h')
        self.assertIn('Kiv::BoundedValue<B, uint64_t, 0, 18446744073709551615ull, 5>', header)
        self.assertIn('Kiv::BoundedValue<C, uint8_t, 0, 63, 0>', header)


class TypeCheck(Rejecting):
    def other(self, text, path='other.ent', header='o/other.h'):
        catalog = entitygen.Catalog()
        catalog.add_known(entitygen.KNOWN_TYPES)
        catalog.add_description(entitygen.parse(text, path, header))
        return catalog

    def test_unknown_types_name_file_and_line(self):
        self.rejects('entity E\n  attr x: Nope\n', "t.ent:3: unknown type 'Nope'")
        self.rejects('entity E\n  coll c: u32 -> Missing\n', "t.ent:3: unknown type 'Missing'")
        self.rejects('entity E\n  table t: Absent -> u32 capacity 4\n', "t.ent:3: unknown type 'Absent'")
        self.rejects('entity E\n  ref r: Gone\n', "t.ent:3: unknown type 'Gone'")
        self.rejects('entity E : Base\n', "t.ent:2: unknown base entity 'Base'")
        # Resolved from the description's namespace outward, as C++ does.
        self.rejects('entity E\n  attr x: IntfId\n', "unknown type 'IntfId'")

    def test_duplicate_names(self):
        self.rejects('value V\nvalue V\n', 'line 3', 'type V is declared twice')
        self.rejects('entity E\n  attr a: u8\n  counter a: u8\n', 'line 4', 'a is declared twice')
        catalog = self.other('namespace T\n\nvalue V\n')
        self.rejects('value V\n', 't.ent:2: type T::V is declared twice (first at other.ent:3)', catalog=catalog)
        self.rejects('value IntfId\n', 'type T::IntfId', catalog=self.other('namespace T\nvalue IntfId\n'))

    def test_member_shapes(self):
        self.rejects('entity E\n  table t: u32 -> u32\n', 'line 3', 'a table needs "capacity N"')
        self.rejects('entity E\n  coll c: u32\n', 'coll needs "key -> value"')
        self.rejects('entity E\n  attr x: u8 ordered\n', "'ordered' is not an option of attr")
        self.rejects('entity E\n  attr a: u8 id 300\n  attr b: u8 id 290\n', 'id 290 of b is not above')
        self.rejects('entity E\n  factory make(a)\n  attr a: u8\n', "factory argument 'a' is not an attribute set")
        self.rejects('entity E\n  backptr p: E\n  reset p\n', "cannot reset 'p'")
        self.rejects('entity E\n  const c: u8\n', 'a constant needs "= value"')
        self.rejects('entity E\n  method not a declaration\n', 'method needs a C++ declaration')
        self.rejects('entity E\n  counter n: u8\n  check c(n)\n', "check c: 'n' is not a plain attribute")
        self.rejects('entity E\n  check c()\n', 'check needs "name(attribute, ...)"')
        self.rejects('value V\n  table t: u32 -> u32 capacity 1\n', "'table' does not belong in value V")
        self.rejects('entity E\n  attr a: u8 ctor custom\n', 'no setter to write by hand')
        self.rejects('entity E\n  state s\n', 'state needs "name: Type"')
        self.rejects('entity E\n  state s: Nowhere\n', "t.ent:3: unknown type 'Nowhere' of state s")

    def test_base_described_elsewhere(self):
        # Found by its qualified name; ids count on after the bases' (an empty one between them
        # included), whose member types the adapter names from the base's own namespace.
        catalog = self.other('namespace O\nvalue W\nentity Base\n  attr w: W\n  counter n: u8\n')
        header, source = entitygen.generate('namespace T\nentity Mid : O::Base\nentity E : Mid\n  attr x: u8\n',
                                            't.ent', 't/t.h', catalog)
        self.assertIn('#include "o/other.h"', header)
        self.assertIn('class Mid : public O::Base {', header)
        self.assertIn('kXId = 260;', header)
        self.assertIn('Kiv::logScalar<E, O::W, &E::w, &E::wIs>', source)
        self.rejects('entity E : O::W\n', "t.ent:2: unknown base entity 'O::W'", catalog=catalog)

    def test_includes_follow_from_the_types_used(self):
        header, _ = entitygen.generate('namespace T\nentity E\n  attr a: Orvet::IntfId\n  coll c: L3::VrfName -> u8\n',
                                       't.ent', 't/t.h')
        self.assertIn('#include "mroute/runtime/net/intf_id.h"', header)
        self.assertIn('#include "mroute/runtime/net/vrf_name.h"', header)
        catalog = self.other('namespace T::Inner\nvalue W\n')
        header, _ = entitygen.generate('namespace T::Inner::Deep\nentity E\n  attr w: W\n  table t: u32 -> W capacity 8\n',
                                       't.ent', 't/t.h', catalog)
        self.assertIn('#include "o/other.h"', header)
        self.assertIn('#include "mroute/kivbrume/table_collection.h"', header)


if __name__ == '__main__':
    unittest.main()
