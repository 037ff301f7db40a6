// Makes SAM text to measure with: alignments as instruments and aligners give them,
// to an invented genome, the same for the same seed.
//
//     bench_make_data KIND SIZE_BYTES [SEED] > reads.sam
//
//   short           pairs of 150 bases in coordinate order, thirty over each place
//   short-unsorted  the same in the order of an aligner's output
//   aligned-long    12,000 bases on average, in coordinate order, with an insertion
//                   or deletion every ten bases
//   long            unmapped, 8,000 bases on average, with move table and modified
//                   bases

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <queue>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::int32_t N_REFERENCES = 25;
constexpr std::int64_t COVERED_BEGIN = 10'000'000;  // reads lie from here on
constexpr std::int64_t DEPTH = 30;
constexpr std::size_t SHORT_BASES = 150;
constexpr double LONG_ALIGNED_BASES = 12'000;
constexpr double LONG_BASES = 8'000;
constexpr std::uint64_t MAX_SIZE_BYTES = std::uint64_t{1} << 40;  // fits the references

// --- Chance ----------------------------------------------------------------

// Standard distributions differ from library to library, these do not.
class Random {
public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}

    // From 0 to n - 1.
    std::uint32_t below(std::uint32_t n) {
        return static_cast<std::uint32_t>(((engine_() >> 32) * n) >> 32);
    }
    double fraction() { return static_cast<double>(engine_() >> 11) * 0x1p-53; }
    bool happens(double probability) { return fraction() < probability; }
    double exponential(double mean) { return -mean * std::log(1 - fraction()); }
    // The length of a read: many of middle length, some very long.
    std::size_t read_length(double mean) {
        return 200 +
               static_cast<std::size_t>(exponential(mean / 2 - 100) + exponential(mean / 2 - 100));
    }

private:
    std::mt19937_64 engine_;
};

std::uint64_t hash(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15U;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

// The genome: 41% G and C. It is computed where it is needed, and not kept.
char reference_base(std::int32_t refID, std::int64_t pos) {
    auto const place = static_cast<std::uint64_t>(refID) << 40 | static_cast<std::uint64_t>(pos);
    std::uint64_t const number = hash(place >> 2) >> (16 * (place & 3)) & 0xFFFF;
    return number < 19'333 ? 'A' : number < 32'768 ? 'C' : number < 46'203 ? 'G' : 'T';
}

std::int64_t reference_length(std::int32_t refID) { return 248'000'000 - 8'000'000 * refID; }

char other_base(char base, Random& random) {
    char const other = "ACG"[random.below(3)];
    return other == base ? 'T' : other;
}

// --- Text ------------------------------------------------------------------

void append_number(std::string& text, std::int64_t number) {
    char digits[24];
    text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// Appends texts and numbers, each behind a tab.
template <typename... Fields>
void append_fields(std::string& line, Fields const&... fields) {
    auto const append = [&](auto const& field) {
        line += '\t';
        if constexpr (std::is_integral_v<std::decay_t<decltype(field)>>) {
            append_number(line, field);
        } else {
            line += field;
        }
    };
    (append(fields), ...);
}

// An optional field that is a number.
std::string tagged(std::string tag, std::int64_t number) {
    append_number(tag, number);
    return tag;
}

std::string reference_name(std::int32_t refID) { return tagged("chr", refID + 1); }

std::string random_name(Random& random) {
    constexpr char const* HEX = "0123456789abcdef";
    std::string name;
    for (int i = 0; i < 36; ++i) {
        bool const is_dash = i == 8 || i == 13 || i == 18 || i == 23;
        name += is_dash ? '-' : HEX[random.below(16)];
    }
    return name;
}

// Standard output, filled up to a size.
class Output {
public:
    explicit Output(std::uint64_t size_bytes) : size_bytes_(size_bytes) {}

    void write_line(std::string_view line) {
        buffer_ += line;
        buffer_ += '\n';
        written_ += line.size() + 1;
        if (buffer_.size() >= FLUSH_BYTES) flush();
    }
    // How much there is, of one.
    double fraction() const {
        return static_cast<double>(written_) / static_cast<double>(size_bytes_);
    }
    bool is_full() const { return written_ >= size_bytes_; }
    void flush() {
        if (std::fwrite(buffer_.data(), 1, buffer_.size(), stdout) != buffer_.size() ||
            std::fflush(stdout) != 0) {
            std::perror("bench_make_data: cannot write");
            std::exit(1);
        }
        buffer_.clear();
    }

private:
    static constexpr std::size_t FLUSH_BYTES = std::size_t{1} << 20;
    std::uint64_t size_bytes_;
    std::uint64_t written_ = 0;
    std::string buffer_;
};

// --- Reads -----------------------------------------------------------------

// Four values, as instruments give them that save space; bad ones come together.
void fill_binned_qualities(std::string& qual, std::size_t n, Random& random) {
    qual.clear();
    unsigned badness = 0;
    for (std::size_t i = 0; i < n; ++i) {
        unsigned const number = random.below(100);
        unsigned const at_end = i * 4 > n * 3 ? 3 : 0;  // reads get worse there
        if (badness == 0) {
            badness = number < 3 + at_end ? 1 + random.below(3) : 0;
        } else if (number < 60) {
            badness = 0;
        }
        qual += "F:,#"[badness];
    }
}

// Many values, each like the one before.
void fill_wide_qualities(std::string& qual, std::size_t n, Random& random) {
    qual.clear();
    std::uint32_t quality = 20;
    for (std::size_t i = 0; i < n; ++i) {
        std::uint32_t const wanted = (3 * quality + 26) / 4 + random.below(19);
        quality = wanted < 10 ? 1 : wanted - 9;
        qual += static_cast<char>('!' + quality);
    }
}

struct ErrorRates {
    double substitution;
    double indel;
    double clipping;
    std::uint32_t max_clip;
};
constexpr ErrorRates SHORT_ERRORS = {0.004, 0.0002, 0.03, 40};
constexpr ErrorRates LONG_ERRORS = {0.03, 0.10, 0.3, 200};

// A read and how it differs from the genome.
struct Alignment {
    std::string seq;
    std::string qual;
    std::string cigar;
    std::string md;
    std::int64_t edit_distance = 0;
    std::int64_t ref_length = 0;
};

// Draws an alignment, operation by operation.
class AlignmentMaker {
public:
    AlignmentMaker(Random& random, std::int32_t refID, std::int64_t pos)
        : random_(random), refID_(refID), begin_(pos), pos_(pos) {}

    Alignment make(std::size_t n_bases, ErrorRates const& rates) {
        if (random_.happens(rates.clipping)) clip(rates);
        while (made_.seq.size() < n_bases) {
            if (op_ == 'M' && random_.happens(rates.indel)) {
                random_.below(2) == 0 ? insert() : remove();
            }
            match(rates);
        }
        end_operation();
        append_number(made_.md, n_equal_);
        made_.ref_length = pos_ - begin_;
        return std::move(made_);
    }

private:
    void operation(char op) {
        if (op != op_) end_operation();
        op_ = op;
        ++op_length_;
    }
    void end_operation() {
        if (op_length_ == 0) return;
        append_number(made_.cigar, op_length_);
        made_.cigar += op_;
        op_length_ = 0;
    }
    void random_base(char op) {
        operation(op);
        made_.seq += "ACGT"[random_.below(4)];
    }
    void clip(ErrorRates const& rates) {
        for (std::uint32_t n = 5 + random_.below(rates.max_clip); n > 0; --n) random_base('S');
    }
    void insert() {
        std::uint32_t const n = indel_length();
        for (std::uint32_t i = 0; i < n; ++i) random_base('I');
        made_.edit_distance += n;
    }
    void remove() {
        std::uint32_t const n = indel_length();
        append_number(made_.md, std::exchange(n_equal_, 0));
        made_.md += '^';
        for (std::uint32_t i = 0; i < n; ++i) {
            operation('D');
            made_.md += reference_base(refID_, pos_++);
        }
        made_.edit_distance += n;
    }
    void match(ErrorRates const& rates) {
        operation('M');
        char const base = reference_base(refID_, pos_++);
        if (!random_.happens(rates.substitution)) {
            ++n_equal_;
            made_.seq += base;
            return;
        }
        append_number(made_.md, std::exchange(n_equal_, 0));
        made_.md += base;
        made_.seq += other_base(base, random_);
        ++made_.edit_distance;
    }
    std::uint32_t indel_length() { return random_.below(3) != 0 ? 1 : 1 + random_.below(6); }

    Random& random_;
    std::int32_t refID_;
    std::int64_t begin_;
    std::int64_t pos_;
    Alignment made_;
    char op_ = ' ';
    std::int64_t op_length_ = 0;
    std::int64_t n_equal_ = 0;
};

// --- Kinds -----------------------------------------------------------------

void write_header(Output& output, char const* order) {
    output.write_line(std::string("@HD\tVN:1.6\tSO:") + order);
    for (std::int32_t refID = 0; refID < N_REFERENCES; ++refID) {
        output.write_line("@SQ\tSN:" + reference_name(refID) +
                          tagged("\tLN:", reference_length(refID)));
    }
    output.write_line("@RG\tID:run1\tSM:sample1");
}

struct Line {
    std::int64_t pos;
    std::string text;
};

class ShortPairs {
public:
    explicit ShortPairs(Random& random) : random_(random) {}

    // Both reads of a fragment whose first base is at `pos`.
    std::pair<Line, Line> make(std::int32_t refID, std::int64_t pos) {
        std::int64_t const mate_pos = pos + 120 + random_.below(100) + random_.below(100);
        Alignment left = AlignmentMaker(random_, refID, pos).make(SHORT_BASES, SHORT_ERRORS);
        Alignment right = AlignmentMaker(random_, refID, mate_pos).make(SHORT_BASES, SHORT_ERRORS);
        fill_binned_qualities(left.qual, left.seq.size(), random_);
        fill_binned_qualities(right.qual, right.seq.size(), random_);
        std::int64_t const tlen = mate_pos + right.ref_length - pos;
        bool const first_is_left = random_.below(2) == 0;
        std::string const name = next_name();
        std::string const reference = reference_name(refID);
        int const mapq = random_.below(10) != 0 ? 60 : static_cast<int>(random_.below(60));
        auto const line_of = [&](Alignment const& read, int flag, std::int64_t at,
                                 Alignment const& mate, std::int64_t mate_at, std::int64_t length) {
            std::string line = name;
            append_fields(line, flag, reference, at + 1, mapq, read.cigar, "=", mate_at + 1, length,
                          read.seq, read.qual, tagged("NM:i:", read.edit_distance),
                          "MD:Z:" + read.md, "MC:Z:" + mate.cigar,
                          tagged("AS:i:", 150 - 5 * read.edit_distance),
                          tagged("XS:i:", mapq == 60 ? 19 : 100 + random_.below(40)), "RG:Z:run1");
            return Line{at, line};
        };
        return {line_of(left, first_is_left ? 99 : 163, pos, right, mate_pos, tlen),
                line_of(right, first_is_left ? 147 : 83, mate_pos, left, pos, -tlen)};
    }

private:
    // Lane, tile and place on it.
    std::string next_name() {
        std::string name = "RUN0042:117:F0A1B2C3:";
        append_number(name, 1 + random_.below(4));
        append_number(name += ':', 1101 + random_.below(78));
        append_number(name += ':', 1000 + random_.below(30000));
        append_number(name += ':', 1000 + random_.below(36000));
        return name;
    }

    Random& random_;
};

// The bases between the beginnings of fragments with so many bases, on average.
std::uint32_t mean_step(double n_bases) { return static_cast<std::uint32_t>(n_bases) / DEPTH; }

void make_short(Output& output, Random& random) {
    write_header(output, "coordinate");
    ShortPairs pairs(random);
    auto const is_later = [](Line const& a, Line const& b) { return a.pos > b.pos; };
    for (std::int32_t refID = 0; refID < N_REFERENCES; ++refID) {
        std::priority_queue<Line, std::vector<Line>, decltype(is_later)> mates(is_later);
        auto const write_mates_to = [&](std::int64_t pos) {
            for (; !mates.empty() && mates.top().pos < pos; mates.pop()) {
                output.write_line(mates.top().text);
            }
        };
        std::int64_t pos = COVERED_BEGIN;
        while (output.fraction() < (refID + 1.0) / N_REFERENCES) {
            pos += random.below(2 * mean_step(2.0 * SHORT_BASES) + 1);
            write_mates_to(pos);
            auto [left, right] = pairs.make(refID, pos);
            output.write_line(left.text);
            mates.push(std::move(right));
        }
        write_mates_to(reference_length(refID));
    }
}

void make_short_unsorted(Output& output, Random& random, std::uint64_t size_bytes) {
    write_header(output, "unsorted");
    ShortPairs pairs(random);
    constexpr std::uint64_t PAIR_BYTES = 900;
    std::uint64_t const n_pairs = size_bytes / PAIR_BYTES / N_REFERENCES + 1;
    auto const span = static_cast<std::uint32_t>(n_pairs * mean_step(2.0 * SHORT_BASES));
    while (!output.is_full()) {
        auto const refID = static_cast<std::int32_t>(random.below(N_REFERENCES));
        auto const [left, right] = pairs.make(refID, COVERED_BEGIN + random.below(span));
        bool const first_is_left = random.below(2) == 0;
        output.write_line(first_is_left ? left.text : right.text);
        output.write_line(first_is_left ? right.text : left.text);
    }
}

std::string aligned_long_line(Random& random, std::int32_t refID, std::int64_t pos) {
    std::size_t const n_bases = random.read_length(LONG_ALIGNED_BASES);
    Alignment read = AlignmentMaker(random, refID, pos).make(n_bases, LONG_ERRORS);
    fill_wide_qualities(read.qual, read.seq.size(), random);
    std::string line = random_name(random);
    append_fields(line, random.below(2) * 16, reference_name(refID), pos + 1, 60, read.cigar, "*",
                  0, 0, read.seq, read.qual, tagged("NM:i:", read.edit_distance),
                  tagged("AS:i:", 2 * read.ref_length - 5 * read.edit_distance), "tp:A:P",
                  tagged("de:f:0.1", 100 + random.below(900)), "RG:Z:run1");
    return line;
}

void make_aligned_long(Output& output, Random& random) {
    write_header(output, "coordinate");
    for (std::int32_t refID = 0; refID < N_REFERENCES; ++refID) {
        std::int64_t pos = COVERED_BEGIN;
        while (output.fraction() < (refID + 1.0) / N_REFERENCES) {
            pos += random.below(2 * mean_step(LONG_ALIGNED_BASES) + 1);
            output.write_line(aligned_long_line(random, refID, pos));
        }
    }
}

// The signal's blocks: 1 where a base begins; 2.5 for each base on average.
std::string move_table(std::size_t n_bases, Random& random) {
    std::string field = "mv:B:c,5";
    for (std::size_t i = 0; i < n_bases; ++i) {
        field += ",1";
        for (std::uint32_t number = random.below(10); number < 6; number = random.below(10)) {
            field += ",0";
        }
    }
    return field;
}

// Each C that is followed by G may be modified, with a probability near 0 or 1.
std::string modified_bases(std::string const& seq, Random& random) {
    std::string calls = "Mm:Z:C+m?";
    std::string probabilities = "Ml:B:C";
    std::int64_t n_skipped = 0;
    for (std::size_t i = 0; i + 1 < seq.size(); ++i) {
        if (seq[i] != 'C') continue;
        if (seq[i + 1] != 'G') {
            ++n_skipped;
            continue;
        }
        append_number(calls += ',', std::exchange(n_skipped, 0));
        std::uint32_t const doubt = random.below(16) * random.below(9);
        append_number(probabilities += ',', random.below(10) < 7 ? 255 - doubt : doubt);
    }
    return calls + ";\t" + probabilities;
}

void make_long(Output& output, Random& random) {
    output.write_line("@HD\tVN:1.6\tSO:unknown");
    output.write_line("@RG\tID:run1\tSM:sample1");
    for (std::int64_t n_reads = 1; !output.is_full(); ++n_reads) {
        std::size_t const n_bases = random.read_length(LONG_BASES);
        auto const refID = static_cast<std::int32_t>(random.below(N_REFERENCES));
        std::int64_t const pos = COVERED_BEGIN + random.below(40'000'000);
        std::string seq;
        for (std::size_t i = 0; i < n_bases; ++i) {
            seq += reference_base(refID, pos + static_cast<std::int64_t>(i));
        }
        std::string qual;
        fill_wide_qualities(qual, n_bases, random);
        std::string line = random_name(random);
        append_fields(line, 4, "*", 0, 0, "*", "*", 0, 0, seq, qual,
                      tagged("qs:i:", 8 + random.below(20)), tagged("rn:i:", n_reads), "RG:Z:run1",
                      move_table(n_bases, random), modified_bases(seq, random));
        output.write_line(line);
    }
}

bool parse_number(char const* text, std::uint64_t& number) {
    std::string_view const digits = text;
    auto const [end, error] = std::from_chars(digits.begin(), digits.end(), number);
    return error == std::errc() && end == digits.end();
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t size_bytes = 0;
    std::uint64_t seed = 1;
    std::string_view const kind = argc > 1 ? argv[1] : "";
    bool const is_right = argc >= 3 && argc <= 4 && parse_number(argv[2], size_bytes) &&
                          size_bytes <= MAX_SIZE_BYTES && (argc < 4 || parse_number(argv[3], seed));
    Output output(size_bytes);
    Random random(seed);
    if (is_right && kind == "short") {
        make_short(output, random);
    } else if (is_right && kind == "short-unsorted") {
        make_short_unsorted(output, random, size_bytes);
    } else if (is_right && kind == "aligned-long") {
        make_aligned_long(output, random);
    } else if (is_right && kind == "long") {
        make_long(output, random);
    } else {
        std::fputs(
            "usage: bench_make_data short|short-unsorted|aligned-long|long SIZE_BYTES [SEED]\n",
            stderr);
        return 2;
    }
    output.flush();
    return 0;
}
