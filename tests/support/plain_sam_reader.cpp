#include "tests/support/plain_sam_reader.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <map>
#include <stdexcept>
#include <string_view>
#include <typeinfo>
#include <utility>

#include "tests/support/record_text.h"
#include "tests/support/text.h"

namespace tesk::test {
namespace {

using util::bam::BAMFileHandler;
using BamRecord = BAMFileHandler::BamRecord;
using AuxNumericalArray = BAMFileHandler::AuxNumericalArray;

constexpr char FILE_NAME[] = "reads.sam";

// A line that the plain reading refuses; what() is the whole message.
struct Refused : std::exception {
    explicit Refused(std::string text) : message(std::move(text)) {}
    char const* what() const noexcept override { return message.c_str(); }
    std::string message;
};

// The record that a line gives, as far as it was read.
struct Reading {
    BamRecord record;
    bool has_columns = false;  // the eleven columns were read and packed
};

std::int32_t low_32_bits(long value) {
    auto const bits = static_cast<std::uint32_t>(static_cast<unsigned long>(value));
    std::int32_t result = 0;
    std::memcpy(&result, &bits, sizeof result);
    return result;
}

std::int32_t index_of(std::string const& name, std::vector<std::string> const& references) {
    for (std::size_t i = 0; i < references.size(); ++i) {
        if (references[i] == name) return static_cast<std::int32_t>(i);
    }
    return -1;
}

void read_cigar(std::string const& text, BamRecord& record) {
    if (text == "*") {
        record.ref_length = 1;
        return;
    }
    static std::string const LETTERS = "MIDNSHP=X";
    char const* next = text.c_str();
    char const* const end = next + text.size();
    while (next < end) {
        char* after = nullptr;
        long const length = std::strtol(next, &after, 10);
        char const letter = *after;
        if (letter == REFUSED_OPERATION) {
            throw Refused(std::string("Invalid cigar op detected: '") + letter + "'");
        }
        std::size_t const code = letter == '\0' ? std::string::npos : LETTERS.find(letter);
        if (code == std::string::npos) {
            record.cigar.push_back(0xFFFFFFFF);
        } else {
            record.cigar.push_back(static_cast<std::uint32_t>(low_32_bits(length)) << 4 |
                                   static_cast<std::uint32_t>(code));
            if (std::string("MDN=X").find(letter) != std::string::npos) {
                record.ref_length += static_cast<unsigned long>(long{low_32_bits(length)});
            }
        }
        next = after + 1;
    }
}

void read_bases(std::string const& text, BamRecord& record) {
    if (text == "*") return;
    static std::string const LETTERS = "=ACMGRSVTWYHKDBN";
    record.l_seq = static_cast<std::int32_t>(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char const base = text[i] == 'U' ? 'T' : text[i];
        std::size_t code = base == '\0' ? std::string::npos : LETTERS.find(base);
        bool const is_unpaired = i % 2 == 0 && i + 1 == text.size();
        if (code == std::string::npos) {
            if (!is_unpaired) throw Refused("Invalid sequence code detected");
            code = 15;
        }
        if (i % 2 == 0) {
            record.seq.push_back(static_cast<std::uint8_t>(code << 4));
        } else {
            record.seq.back() = static_cast<std::uint8_t>(record.seq.back() | code);
        }
    }
}

void read_qualities(std::string const& text, BamRecord& record) {
    for (std::size_t i = 0; i < static_cast<std::size_t>(record.l_seq); ++i) {
        int const score = text == "*" ? 0xFF : i < text.size() ? text[i] - 33 : 0;
        record.qual.push_back(static_cast<char>(score));
    }
}

// The smallest bin around [beg, end), all in wrapping 32-bit arithmetic.
std::uint16_t bin_around(std::int32_t beg, std::int32_t end) {
    std::int32_t const last = low_32_bits(long{end} - 1);
    std::int32_t first_of_level = 4681;
    for (int shift = 14; shift <= 26; shift += 3) {
        if (beg >> shift == last >> shift) {
            return static_cast<std::uint16_t>(first_of_level + (beg >> shift));
        }
        first_of_level = (first_of_level - 1) / 8;
    }
    return 0;
}

AuxNumericalArray read_array(std::string const& text, std::string const& field) {
    AuxNumericalArray array;
    array.type = text.empty() ? '\0' : text[0];
    for (char const c : text) array.count += c == ',' ? 1 : 0;
    if (array.count == 0) return array;
    static std::map<char, std::size_t> const WIDTHS = {{'c', 1}, {'C', 1}, {'s', 2}, {'S', 2},
                                                       {'i', 4}, {'I', 4}, {'f', 4}};
    if (WIDTHS.count(array.type) == 0) throw Refused("Invalid aux data detected: " + field);
    std::size_t const width = WIDTHS.at(array.type);
    std::string const elements = text.substr(2);
    for (std::string_view const part : split(elements, ',')) {
        std::string const piece(part);
        char bytes[4];
        if (array.type == 'f') {
            float const number = std::stof(piece);
            std::memcpy(bytes, &number, sizeof bytes);
        } else {
            int const number = std::stoi(piece);
            std::memcpy(bytes, &number, sizeof bytes);
        }
        if (array.data.size() == array.count * width) {
            throw std::runtime_error("Hit end of BAM buffer while writing data");
        }
        array.data.insert(array.data.end(), bytes, bytes + width);
    }
    return array;
}

boost::any read_value(char type, std::string const& text, std::string const& field) {
    switch (type) {
        case 'A': return text.empty() ? '\0' : text[0];
        case 'i': return std::stoi(text);
        case 'f': return std::stof(text);
        case 'Z':
        case 'H': return text;
        case 'B': return read_array(text, field);
        default:
            throw Refused(std::string("Invalid auxiliary data type) '") + type +
                          "' found in alignment record in " + FILE_NAME);
    }
}

// Throws Refused, or what the conversions of the standard library throw.
void read_plainly(std::string const& line, std::vector<std::string> const& references,
                  std::istringstream& in, Reading& reading) {
    BamRecord& record = reading.record;
    std::string rname;
    std::string cigar;
    std::string rnext;
    std::string seq;
    std::string qual;
    int pos = 0;
    int mapq = -1;
    int pnext = 0;
    in.clear();
    in.str(line);
    in >> record.read_name >> record.flag >> rname >> pos >> mapq >> cigar >> rnext >> pnext >>
        record.tlen >> seq >> qual;
    for (std::string const* text : {&record.read_name, &rname, &cigar, &rnext, &seq, &qual}) {
        if (text->empty()) throw Refused("Malformed SAM line detected");
    }
    record.pos = low_32_bits(long{pos} - 1);
    record.next_pos = low_32_bits(long{pnext} - 1);
    record.mapq = static_cast<std::uint8_t>(mapq & 0xFF);
    read_cigar(cigar, record);
    auto const ref_length = static_cast<long>(record.ref_length);
    record.bin = bin_around(record.pos, low_32_bits(record.pos + long{low_32_bits(ref_length)}));
    if (rnext == "=") rnext = rname;
    record.refID = index_of(rname, references);
    record.next_refID = index_of(rnext, references);
    read_bases(seq, record);
    if (record.l_seq != 0) read_qualities(qual, record);
    reading.has_columns = true;

    if (in.peek() == '\r') {
        in.get();
        if (in.peek() != std::istringstream::traits_type::eof()) in.unget();
    }
    if (in.peek() == '\t') in.get();
    while (!in.eof()) {
        std::string field;
        std::getline(in, field, '\t');
        if (field.size() <= 4 || field[2] != ':' || field[4] != ':') {
            throw Refused("Invalid aux data detected: " + field);
        }
        boost::any const value = read_value(field[3], field.substr(5), field);
        record.aux_data.push_back({field.substr(0, 2), field[3], value});
    }
    record.sam_line = line;
}

// The fixed words of a message.
std::string kind_of(std::string const& message) {
    return message.substr(0, message.find_first_of(":'"));
}

}  // namespace

std::string exception_text(std::exception const& fault) {
    return std::string(typeid(fault).name()) + ": " + fault.what();
}

SamReadings::SamReadings(std::vector<std::string> references) : references_(std::move(references)) {
    for (std::string const& name : references_) handler_.references.push_back({name, 1000});
    handler_.cigar_op_codes[REFUSED_OPERATION] = 9;
    handler_.file_name = FILE_NAME;
    stream_.imbue(std::locale::classic());
}

SamReading SamReadings::read_by_stream(std::string const& line, bool& has_columns) {
    Reading plain;
    SamReading reading;
    try {
        read_plainly(line, references_, stream_, plain);
        reading = {"accepted", "accepted\n"};
    } catch (Refused const& refused) {
        reading = {kind_of(refused.message), "refused: " + refused.message + '\n'};
    } catch (std::exception const& fault) {
        reading = {exception_text(fault), exception_text(fault) + '\n'};
    }
    has_columns = plain.has_columns;
    if (has_columns) reading.text += record_text(plain.record);
    plain_record_ = std::move(plain.record);
    return reading;
}

SamReading SamReadings::read_by_handler(std::string const& line, bool has_columns) {
    SamReading reading;
    BamRecord record;
    handler_.error_message = "untouched";
    try {
        if (handler_.parse_sam_line_to_bam_record(line, record)) {
            reading.text = "accepted\n";
            if (handler_.error_message != "untouched") reading.text += "with a message\n";
        } else {
            reading.text = "refused: " + handler_.error_message + '\n';
        }
    } catch (std::exception const& fault) {
        reading.text = exception_text(fault) + '\n';
    }
    if (has_columns) reading.text += record_text(record);
    return reading;
}

}  // namespace tesk::test
