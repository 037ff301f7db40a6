#include "tools/import.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/message.h"
#include "tools/sam_field.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

// The next line of a record that has begun.
void take_line(LineReader& input, std::string& line, std::uint64_t record) {
    if (input.next(line)) return;
    throw ToolError(input.place(input.number()) +
                    ": the input ends inside the record that begins in line " +
                    std::to_string(record));
}

void expect_begin(LineReader const& input, std::string const& line, char first) {
    if (!line.empty() && line[0] == first) return;
    input.fail(std::string("not a FASTQ record: a line that begins with ") + first +
               " was expected");
}

// Refuses what the library would take otherwise than it is meant.
void check_value(LineReader const& input, FieldChecker& checker, std::string_view field) {
    if (checker.has_valid_value(field)) return;
    input.fail("the value of the optional field does not suit its type, or is out of range: " +
               std::string(field));
}

// Appends the optional fields of a comment to `fields`, a tab before each; null for
// the checker leaves their values to who encodes the record. Returns whether
// something else stands there, too.
bool take_fields(LineReader const& input, std::string_view comment, FieldChecker* checker,
                 std::string& fields) {
    bool all = true;
    while (!comment.empty()) {
        std::string_view const part = comment.substr(0, comment.find('\t'));
        comment.remove_prefix(std::min(part.size() + 1, comment.size()));
        if (!is_field(part)) {
            all = all && part.empty();
            continue;
        }
        if (checker != nullptr) check_value(input, *checker, part);
        (fields += '\t') += part;
    }
    return !all;
}

class FastqParser {
public:
    explicit FastqParser(ImportOptions const& options) : keep_comments_(options.keep_comments) {
        if (options.reads.exact) checker_.emplace();
    }

    bool next(LineReader& input, Read& read) {
        if (!input.next_record(line_)) return false;
        read.line = input.number();
        expect_begin(input, line_, '@');
        take_name(input, read);
        take_line(input, read.sequence, read.line);
        take_line(input, line_, read.line);
        expect_begin(input, line_, '+');
        take_line(input, read.qualities, read.line);
        return true;
    }

    // Number of reads with comments, or parts of them, that are no fields.
    std::uint64_t n_left_out() const { return n_left_out_; }

private:
    // The name ends at the first blank.
    void take_name(LineReader const& input, Read& read) {
        std::size_t const blank = std::min(line_.find_first_of(" \t"), line_.size());
        read.name.assign(line_, 1, blank - 1);
        read.fields.clear();
        if (!keep_comments_ || blank == line_.size()) return;
        std::string_view const comment = std::string_view(line_).substr(blank + 1);
        bool const left_out =
            take_fields(input, comment, checker_ ? &*checker_ : nullptr, read.fields);
        if (left_out) ++n_left_out_;
    }

    bool keep_comments_;
    std::optional<FieldChecker> checker_;  // of exact imports
    std::uint64_t n_left_out_ = 0;
    std::string line_;
};

}  // namespace

void import_reads(ImportOptions const& options) {
    FastqParser parser(options);
    auto const next = [&](LineReader& input, Read& read) { return parser.next(input, read); };
    std::uint64_t const n_reads = store_reads(options.reads, next);
    if (parser.n_left_out() == 0 || options.reads.quiet) return;
    print_message("note: " + std::to_string(parser.n_left_out()) + " of " +
                  std::to_string(n_reads) +
                  " reads have comments that are no SAM fields; these are left out");
}

}  // namespace tesk::tool
