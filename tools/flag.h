// The bits of FLAG.

#pragma once

namespace tesk::tool {

enum Flag : unsigned {
    FLAG_PAIRED = 0x1,
    FLAG_PROPER_PAIR = 0x2,
    FLAG_UNMAPPED = 0x4,
    FLAG_MATE_UNMAPPED = 0x8,
    FLAG_REVERSE = 0x10,
    FLAG_MATE_REVERSE = 0x20,
    FLAG_FIRST = 0x40,
    FLAG_LAST = 0x80,
    FLAG_SECONDARY = 0x100,
    FLAG_QC_FAIL = 0x200,
    FLAG_DUPLICATE = 0x400,
    FLAG_SUPPLEMENTARY = 0x800,
};

}  // namespace tesk::tool
