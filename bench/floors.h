// The floors of reading, writing and sorting: the work that nobody can do without who
// offers the library's results, and nothing else. Plain code, independent of the
// library.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <boost/any.hpp>

namespace tesk::bench {

// A record with the members of the library's, and ready-made values.
struct FloorArray {
    char type;
    std::uint32_t count;
    std::vector<char> data;
};
struct FloorField {
    std::string tag;
    char type;
    boost::any value;
};
struct FloorRecord {
    std::int32_t refID;
    std::int32_t pos;
    std::string read_name;
    std::uint8_t mapq;
    std::uint16_t bin;
    std::uint16_t flag;
    std::int32_t l_seq;
    std::int32_t next_refID;
    std::int32_t next_pos;
    std::int32_t tlen;
    std::vector<std::uint32_t> cigar;
    std::uint64_t ref_length;
    std::vector<std::uint8_t> seq;
    std::vector<char> qual;
    std::vector<FloorField> aux_data;
    std::string sam_line;
};
using FloorRecords = std::vector<FloorRecord>;

// A block of a BAM file: where its compressed bytes and its payload are, the latter in
// the payloads of all blocks.
struct Block {
    std::size_t payload_begin;
    std::size_t payload_bytes;
};

// Payloads of the blocks of a BAM file, one behind the other.
struct Payload {
    std::vector<char> bytes;
    std::vector<Block> blocks;
};

// Reads a SAM file in pieces of 1 MiB, finds its tabs and newlines, and builds a record
// for every alignment line.
FloorRecords floor_read_sam(std::string const& path, FloorRecords const& ready);

// The same of lines in memory.
FloorRecords floor_add_lines(std::vector<std::string_view> const& lines, FloorRecords const& ready);

// Deflates payloads through one stream, and writes the blocks with their checksums.
void floor_write_bam(std::string const& path, Payload const& payload);

// Inflates the blocks of a file through one stream into one buffer of the right size,
// compares their checksums, and builds the records.
FloorRecords floor_read_bam(std::string const& path, std::size_t payload_bytes,
                            FloorRecords const& ready);

// Gathers texts into pieces of 1 MiB and writes them.
void floor_write_sam(std::string const& path, std::string const& header,
                     FloorRecords const& records);

// Sorts pairs of key and index, and moves the records once.
void floor_sort(FloorRecords& records);

// The payload of a BAM file, block by block.
Payload read_payload(std::string const& path);

// Writes a payload as a BAM file of full blocks.
void write_full_blocks(std::string const& path, Payload const& payload);

}  // namespace tesk::bench
