// Prints what the records of a SAM or BAM file hold.
//
//   example_records FILE

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <string_view>

#include <boost/any.hpp>

#include "util/bam/bam_file.h"

namespace {

using tesk::util::bam::BAMFileHandler;

bool read(BAMFileHandler& alignments, std::string const& path) {
    bool const is_bam = path.size() > 4 && path.compare(path.size() - 4, 4, ".bam") == 0;
    return is_bam ? alignments.read_from_bam_file(path) : alignments.read_from_sam_file(path);
}

// Such as "chr1:101-150", as SAM counts: from 1, the last base included. A record
// without a CIGAR counts as one base; its ref_length is 1 from SAM, 0 from BAM.
std::string place_of(BAMFileHandler const& alignments, BAMFileHandler::BamRecord const& record) {
    if (record.refID < 0) return "nowhere";
    std::string const& name = alignments.references[static_cast<std::size_t>(record.refID)].name;
    auto const n_bases = static_cast<std::int64_t>(std::max<std::uint64_t>(record.ref_length, 1));
    std::int64_t const end = record.pos + n_bases;
    return name + ":" + std::to_string(record.pos + 1) + "-" + std::to_string(end);
}

// SAM text gives integers as type i alone, BAM in six widths.
std::string integer_text(BAMFileHandler::AuxData const& field) {
    switch (field.type) {
        case 'c': return std::to_string(boost::any_cast<std::int8_t>(field.value));
        case 'C': return std::to_string(boost::any_cast<std::uint8_t>(field.value));
        case 's': return std::to_string(boost::any_cast<std::int16_t>(field.value));
        case 'S': return std::to_string(boost::any_cast<std::uint16_t>(field.value));
        case 'i': return std::to_string(boost::any_cast<std::int32_t>(field.value));
        case 'I': return std::to_string(boost::any_cast<std::uint32_t>(field.value));
        default: return "no integer";
    }
}

std::string value_of(BAMFileHandler::BamRecord const& record, std::string_view tag) {
    for (BAMFileHandler::AuxData const& field : record.aux_data) {
        if (field.tag == tag) return integer_text(field);
    }
    return "none";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    BAMFileHandler alignments;
    if (!read(alignments, argv[1])) {
        std::cerr << alignments.error_message << '\n';
        return 1;
    }
    for (BAMFileHandler::BamRecord const& record : alignments.records) {
        bool const is_reverse = (record.flag & 16) != 0;
        std::cout << record.read_name << " at " << place_of(alignments, record)
                  << (is_reverse ? " reverse, " : " forward, ") << record.l_seq << " bases, NM "
                  << value_of(record, "NM") << '\n';
    }
    return 0;
}
