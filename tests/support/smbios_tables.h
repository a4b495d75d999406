// Assembles SMBIOS tables, sound and broken ones, from a description that people can read.
//
// One line each, '#' begins a comment:
//
//   entry 3.2            a 3.x entry point ("_SM3_"); 2.x: "_SM_"; "entry dmi 2.0": "_DMI_" alone.
//                        Options behind it: length=N (of the table), count=N (of records; 2.x),
//                        size=N (of the entry point itself), anchor=TEXT, checksum=bad, cut=N (its
//                        last N bytes are missing)
//   1: 01 02 to=8 {00112233445566778899aabbccddeeff} "Maker" "Box"
//                        a record of type 1: the bytes behind its four-byte header, then its
//                        strings. "1@0x0100:" gives a handle, otherwise they count from 0.
//                        Bytes are hex digits (with {} around them if that reads better), w=N a
//                        little-endian word, to=N zeros up to offset N. Options: length=N (what
//                        byte 1 says instead of the truth), end=N (zeros behind the last string's
//                        text, instead of 2)
//   raw 00 00            bytes as they stand
//   cut 3                the last 3 bytes of the table are missing
#ifndef VEX_TESTS_SUPPORT_SMBIOS_TABLES_H
#define VEX_TESTS_SUPPORT_SMBIOS_TABLES_H

#include <string>
#include <string_view>

namespace vex {

struct SmbiosImage {
  std::string entry_point;  // content of .../dmi/tables/smbios_entry_point
  std::string table;        // content of .../dmi/tables/DMI
};

// Throws std::invalid_argument when the description is not one.
SmbiosImage AssembleSmbios(std::string_view description);

// Writes both files into an existing directory. Throws std::runtime_error.
void WriteSmbios(const SmbiosImage &image, const std::string &directory);

}  // namespace vex

#endif
