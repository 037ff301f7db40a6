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
#include "tests/support/index_builder.h"
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
        // A long CIGAR's placeholder, with a field of numbers too narrow for operations.
        SamLine().with(tesk::test::CIGAR, "4S4N").field("CG:B:c,0,1").text(),
        "\v r1 4 * 0 0 * * 0 0 ACG III",
    };
}

Texts cigars() { return {"*", "4M", "10M2I5D3S", long_cigar(40), long_cigar(300), "5-3M", " 7 M"}; }

Texts bam_payloads() {
    std::vector<tesk::test::Reference> const references = {{"chr1", 1000}, {"chr2", 500}};
    std::string const text =
        "@HD\tVN:1.6\tSO:unknown\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n";
    std::string const header = tesk::test::encode_bam_header(text, references);
    Texts payloads = {header};
    std::string all = header;
    for (std::string const& line : sam_lines()) {
        if (line.front() != 'r' || line.back() == '\r' || line.find("B:f") != line.npos) continue;
        std::string const record = tesk::test::encode_bam_record(line, references);
        payloads.push_back(header + record);
        all += record;
    }
    payloads.push_back(all);
    // A list whose names are not those of the text.
    std::vector<tesk::test::Reference> const others = {{"chr0", 1000}, {"chr2", 500}};
    std::string const in_other = SamLine().with(tesk::test::RNAME, "chr0").text();
    payloads.push_back(tesk::test::encode_bam_header(text, others) +
                       tesk::test::encode_bam_record(in_other, others));
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

Texts sam_headers() {
    return {
        "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:500\n",
        "@HD\tVN:1.6\tSO:queryname\tSS:queryname:natural\n@CO\ta comment\n",
        "@HD\tVN:1.5\tGO:query\n@SQ\tSN:x\tLN:2147483647\tM5:00\n",
        "@HD\tVN:1.3\tSO:unsorted\tpb:5.0\n@RG\tID:a\tSM:b\n@PG\tID:c\n",
        "@SQ\tSN:*x\tLN:1\r\n\n@XX\tdata\n@SQ\tLN:5\tSN:y",
        "@HD VN:1.6 SO:unknown\n@SQ SN:a LN:1\n",
    };
}

std::string joined(Texts const& texts) {
    std::string all;
    for (std::string const& text : texts) all += text + '\n';
    return all;
}

Texts sam_files() {
    Texts files = {joined(sam_lines())};
    for (std::string const& header : sam_headers()) {
        files.push_back(header + SamLine().text() + '\n' +
                        SamLine().with(tesk::test::POS, "7").field("NM:i:1").text() + '\n');
    }
    files.push_back(sam_headers()[0] + joined(sam_lines()));
    // A reference that the line before it does not know.
    files.push_back(SamLine().text() + "\n@SQ\tSN:chr1\tLN:1000\n" + SamLine().text() + '\n');
    // An operation that is cut when it is packed.
    files.push_back(sam_headers()[0] + SamLine().with(tesk::test::CIGAR, "300000000M").text() +
                    '\n');
    // An array of more elements than its commas announce.
    files.push_back(sam_headers()[0] + SamLine().field("XB:B:C:7,8").text() + '\n');
    // Three places that an index tells apart, and a read without a place.
    std::string placed = sam_headers()[0];
    for (char const* const pos : {"20000", "1", "140000", "900"}) {
        placed += SamLine().with(tesk::test::POS, pos).with(tesk::test::CIGAR, "2M70000N2M").text();
        placed += '\n';
    }
    files.push_back(placed + SamLine().with(tesk::test::RNAME, "*").text() + '\n');
    return files;
}

std::string bam_of(std::string_view payload) {
    return tesk::test::bgzf_blocks(payload, 200) + tesk::test::bgzf_eof_block();
}

Texts bam_files() {
    Texts files;
    for (std::string const& payload : bam_payloads()) files.push_back(bam_of(payload));
    return files;
}

Texts bgzf_blocks() {
    std::string const block = tesk::test::bgzf_block("payload");
    Texts blocks = {
        block,
        block + tesk::test::bgzf_eof_block(),
        tesk::test::bgzf_blocks(repeated("ACGT", 500), 300) + tesk::test::bgzf_eof_block(),
        block.substr(0, block.size() - 1),
    };
    // A size, and a deflate stream that yields as much.
    std::string const stream = block.substr(18, block.size() - 26);
    blocks.push_back(std::string("\x07\0", 2) + stream);
    return blocks;
}

Texts indexes() {
    using tesk::test::IndexedRecord;
    std::vector<IndexedRecord> records(3);
    records[0] = {0, 100, 50, 4681, 0, 100 << 16, 200 << 16};
    records[1] = {0, 40000, 50, 4683, 4, 200 << 16, 300 << 16};
    records[2] = {1, 7, 1, 4681, 0, 300 << 16, 400 << 16};
    std::string const index = tesk::test::build_bai(2, records, true);
    return {index, tesk::test::build_bai(0, {}, false), index.substr(0, index.size() - 8),
            index + "more", index.substr(0, 60)};
}

Texts fastq_files() {
    return {
        "@r1 a comment\nACGT\n+\n!I~5\n@r/2\tRG:Z:g\nNNA\n+r/2\n@+#\n",
        "@a\r\nACGTN\r\n+\r\nIIIII\r\n\n",
        "@x NM:i:1\tXZ:Z:a b\tXB:B:c,1,-2\nacgt.\n+\n*****",
        tesk::test::gzip_member("@r1\nACGT\n+\nIIII\n"),
    };
}

Texts json_lines() {
    return {
        R"({"name": "r1", "sequence": "ACGT", "qualities": "!I~5"})"
        "\n"
        R"({"stride": 5, "moves": [1, 0, 127], "qualities": "@+#", "sequence": "NNA", "name": "r/2"})"
        "\n",
        R"({"name":"m","sequence":"ACCGC","qualities":"IIIII","modbase_alphabet":"ACmGT",)"
        R"("modbase_names":"5mC","modbase_threshold":1,"modbase_context":"_:CG:_:_",)"
        R"("modbase_probs":[[0,1,2,3,4],[5,6,255,8,9],[0,0,200,0,0],[0,0,1,0,0],[9,9,9,9,9]]})"
        "\n",
    };
}

Texts operator+(Texts a, Texts const& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
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
    write_seeds(folder / "bai_dump", indexes());
    write_seeds(folder / "bam_file", bam_files());
    write_seeds(folder / "bam_payload", bam_payloads());
    write_seeds(folder / "bgzf_block", bgzf_blocks());
    write_seeds(folder / "cigar", cigars());
    write_seeds(folder / "interop_reader", sam_files() + bam_payloads() + bam_files());
    write_seeds(folder / "modbase", modified_bases());
    write_seeds(folder / "reads_fastq", fastq_files());
    write_seeds(folder / "reads_json", json_lines());
    write_seeds(folder / "sam_file", sam_files());
    write_seeds(folder / "sam_header", sam_headers());
    write_seeds(folder / "sam_line", sam_lines());
    return 0;
}
