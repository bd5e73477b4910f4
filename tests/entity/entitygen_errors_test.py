#!/usr/bin/env python3
"""A wrong flags or bounded description fails in the generator, naming its line,
instead of producing C++ that fails to compile or checks the wrong range."""
import sys
import unittest

# The generator's folder comes first on the command line; unittest reads the rest.
sys.path.insert(0, sys.argv.pop(1))
sys.dont_write_bytecode = True  # leave no cache in the source tree
import entitygen  # noqa: E402


def generate(body):
    return entitygen.generate('namespace T\n' + body, 't.ent', 't/t.h')


class DescriptionErrors(unittest.TestCase):
    def rejects(self, body, *words):
        with self.assertRaises(entitygen.DescriptionError) as e:
            generate(body)
        for w in words:
            self.assertIn(w, str(e.exception))

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
        header, _ = generate('bounded B: u64 = 5 max 0xffffffffffffffff\nbounded C: u8 max 0x3f\n')
        self.assertIn('Kiv::BoundedValue<B, uint64_t, 0, 18446744073709551615ull, 5>', header)
        self.assertIn('Kiv::BoundedValue<C, uint8_t, 0, 63, 0>', header)


if __name__ == '__main__':
    unittest.main()
