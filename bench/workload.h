// What the programs that measure the library have in common.

#pragma once

#include <cstddef>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/floors.h"
#include "util/bam/bam_file.h"

namespace tesk::bench {

// Throws where the library refuses what it is measured on.
inline void require(bool done, tesk::util::bam::BAMFileHandler const& handler) {
    if (!done) throw std::runtime_error(handler.error_message);
}

// Size of the SAM file that a handler holds.
inline std::size_t sam_bytes(tesk::util::bam::BAMFileHandler const& handler) {
    std::size_t size = handler.header.size();
    for (auto const& record : handler.records) size += record.sam_line.size() + 1;
    return size;
}

// BAM files to read: as the library writes them, and in full blocks.
struct BamFiles {
    std::string own;
    std::string full_blocks;
    std::size_t payload_bytes;  // of each, inflated
};

inline BamFiles make_bam_files(tesk::util::bam::BAMFileHandler const& handler,
                               std::string const& folder) {
    BamFiles files{folder + "/own.bam", folder + "/full.bam", 0};
    require(handler.write_to_bam_file(files.own, false), handler);
    Payload const payload = read_payload(files.own);
    files.payload_bytes = payload.bytes.size();
    write_full_blocks(files.full_blocks, payload);
    return files;
}

template <typename Record>
void shuffle(std::vector<Record>& records) {
    std::mt19937_64 random(1);
    for (std::size_t i = records.size(); i > 1; --i) {
        std::swap(records[i - 1], records[random() % i]);
    }
}

// One record in a hundred changes places with one up to twenty places before it.
template <typename Record>
void swap_some(std::vector<Record>& records) {
    std::mt19937_64 random(1);
    for (std::size_t i = 20; i < records.size(); ++i) {
        if (random() % 100 == 0) std::swap(records[i], records[i - random() % 20]);
    }
}

}  // namespace tesk::bench
