"""Whose instructions a callgrind profile's lines are counted as."""

import unittest

import instructions

# The tool (50 itself) calls the bus library (7), which calls back into the tool (20), which asks the identifier
# library four times (3 each) and libc (14) once. Names are given once and then by their number.
PROFILE = """
# callgrind format
positions: line
events: Ir
ob=(1) /build/bin/orvin-firmware-upgrade
fn=(1) main
10 30
+2 20
cob=(2) /build/lib/libtalm-api-v2.so
cfn=(2) ImageTransfer_data
calls=1 5
* 53
ob=(2)
fn=(2)
5 7
cob=(1)
cfn=(3) callback
calls=1 8
-1 46
ob=(1)
fn=(3)
8 20
cob=(3) /build/lib/libvanid.so
cfn=(4) vanid_equal
calls=4 1
+1 12
cob=(4) /lib/libc.so.6
cfn=(5) memcpy
calls=1 1
+1 14
ob=(3)
fn=(4)
1 12
ob=(4)
fn=(5)
1 14
""".splitlines(keepends=True)


class Instructions(unittest.TestCase):
    def test_leave_out_the_bus_libraries_and_keep_what_they_call_back(self):
        total, comparisons = instructions.program_instructions(PROFILE)
        self.assertEqual(total, 50 + 20 + 14)
        self.assertEqual(comparisons, 4)


if __name__ == "__main__":
    unittest.main()
