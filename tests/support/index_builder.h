// A builder of BAI files of the tests' own, and a reader of them: they share
// nothing with the library.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tesk::test {

/// What an index needs to know of one record, in file order.
struct IndexedRecord {
    std::int32_t refID = -1;
    std::int32_t pos = -1;         // 0-based
    std::uint64_t ref_length = 0;  // bases covered on the reference
    std::uint16_t bin = 0;
    std::uint16_t flag = 0;
    std::uint64_t begin = 0;  // virtual offset of its last block
    std::uint64_t end = 0;    // virtual offset after it
};

/// The bytes of the BAI file that belongs to these records.
///
/// @param carry_over  the process has written an index with a placed record
///                    before, so that the index starts with an empty chunk
std::string build_bai(std::int32_t n_ref, std::vector<IndexedRecord> const& records,
                      bool carry_over);

/// A BAI file taken apart.
struct ParsedBai {
    struct Bin {
        std::uint32_t bin = 0;
        std::vector<std::pair<std::uint64_t, std::uint64_t>> chunks;
    };
    struct Section {
        std::vector<Bin> bins;  // in file order, the pseudo-bin 37450 included
        std::vector<std::uint64_t> ioffsets;
    };
    std::vector<Section> references;
    std::uint64_t n_no_coor = 0;
};

/// Takes a BAI file apart; throws std::runtime_error where a count does not fit
/// the file or bytes are left over.
ParsedBai parse_bai(std::string_view file);

}  // namespace tesk::test
