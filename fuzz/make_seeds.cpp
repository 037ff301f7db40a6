// Makes the inputs that the fuzz targets begin with.
//
//     fuzz_make_seeds FOLDER
//
// writes FOLDER/TARGET/NUMBER for each.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/bam_encoder.h"
#include "tests/support/record_text.h"

namespace {

namespace fs = std::filesystem;
using tesk::test::SamLine;
using Texts = std::vector<std::string>;

std::string repeated(std::string_view piece, std::size_t n) {
    std::string text;
    for (std::size_t i = 0; i < n; ++i) text += piece;
    return text;
}

// A CIGAR of numbers of one to five digits.
std::string long_cigar(std::size_t n_ops) {
    std::string text;
    for (std::size_t i = 0; i < n_ops; ++i) {
        text += std::to_string((i * i * 37) % (i % 7 == 0 ? 99999 : 300));
        text += "MIDNSHP=X"[i % 9];
    }
    return text;
}

std::string array(char type, std::size_t n_elements, unsigned most) {
    std::string text = std::string("XB:B:") + type;
    for (std::size_t i = 0; i < n_elements; ++i) {
        text += ',' + std::to_string((i * 7919) % (most + 1));
    }
    return text;
}

Texts sam_lines() {
    SamLine many_fields;
    for (int i = 0; i < 40; ++i) many_fields.field("XI:i:" + std::to_string(i));
    return {
        SamLine().text(),
        SamLine().field("XA:A:x").field("NM:i:-3").field("XF:f:1.25e-3").text(),
        SamLine().field("XZ:Z:a:b c").field("XH:H:1AE3").field("XB:B:s,1,-2,300").text(),
        SamLine().with(tesk::test::CIGAR, long_cigar(40)).text(),
        SamLine().with(tesk::test::CIGAR, long_cigar(300)).text(),
        SamLine().with(tesk::test::SEQ, repeated("ACGTN=RYU", 9)).text(),
        SamLine().with(tesk::test::SEQ, "*").with(tesk::test::QUAL, "*").text(),
        SamLine().field(array('C', 100, 255)).field(array('c', 100, 1)).text(),
        SamLine().field(array('I', 40, 99999)).field(array('f', 4, 9)).text() + '\r',
        many_fields.text(),
        "\v r1 4 * 0 0 * * 0 0 ACG III",
    };
}

Texts cigars() { return {"*", "4M", "10M2I5D3S", long_cigar(40), long_cigar(300), "5-3M", " 7 M"}; }

Texts bam_payloads() {
    std::vector<tesk::test::Reference> const references = {{"chr1", 1000}, {"chr2", 500}};
    std::string const header = tesk::test::encode_bam_header(
        "@HD\tVN:1.6\tSO:unknown\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n", references);
    Texts payloads = {header};
    std::string all = header;
    for (std::string const& line : sam_lines()) {
        if (line.front() != 'r' || line.back() == '\r' || line.find("B:f") != line.npos) continue;
        std::string const record = tesk::test::encode_bam_record(line, references);
        payloads.push_back(header + record);
        all += record;
    }
    payloads.push_back(all);
    tesk::test::RawBamRecord narrow;
    narrow.aux = tesk::test::bam_aux("Xc", 'c', "\x80") + tesk::test::bam_aux("XC", 'C', "\xFF") +
                 tesk::test::bam_aux("Xs", 's', tesk::test::le_bytes(std::int16_t{-300}));
    payloads.push_back(header + narrow.bytes());
    return payloads;
}

Texts modified_bases() {
    auto const seed = [](std::string const& numbers, std::string const& alphabet,
                         std::string const& names, std::string const& context, std::size_t n) {
        return numbers + alphabet + '\0' + names + '\0' + context + '\0' + repeated("BGCADFEH", n);
    };
    return {
        seed("\x80\x01", "ACmhGT", "5mC 5hmC", "", 40),
        seed("\x20\x02", "ACmhGT", "5mC 5hmC", "_:XG:_:_", 150),
        seed("\x40\x03", "AaCmGT", "6mA 5mC", "X:X:_:_", 20),
        seed("\x40\x01", "Cm", "12345", "_:CCXGG:_:_", 300),
    };
}

void write_seeds(fs::path const& folder, Texts const& seeds) {
    fs::create_directories(folder);
    for (std::size_t i = 0; i < seeds.size(); ++i) {
        std::ofstream(folder / std::to_string(i), std::ios::binary) << seeds[i];
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: fuzz_make_seeds FOLDER\n";
        return 2;
    }
    fs::path const folder = argv[1];
    write_seeds(folder / "bam_payload", bam_payloads());
    write_seeds(folder / "cigar", cigars());
    write_seeds(folder / "modbase", modified_bases());
    write_seeds(folder / "sam_line", sam_lines());
    return 0;
}
