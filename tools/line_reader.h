// Text input, line by line.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/input_bytes.h"

namespace tesk::tool {

/// Takes the lines out of a file or standard input, which may be gzip data.
class LineReader {
public:
    /// No read is longer; so no line of an input that is meant needs to be.
    static constexpr std::size_t MAX_LINE_BYTES = 0x7FFFFFFF;

    /// Opens the input; arguments and failures as InputBytes has them.
    /// @param max_line_bytes  longer lines are refused
    explicit LineReader(std::string const& path, std::size_t max_line_bytes = MAX_LINE_BYTES)
        : bytes_(path), max_line_bytes_(max_line_bytes) {}

    /// Gets the next line without its end, "\n" or "\r\n". The last one may lack
    /// it.
    ///
    /// @return  false, and an empty line, at the end
    /// @throws ToolError  the line is too long; as InputBytes::next()
    bool next(std::string& line);

    /// The same for the first line of a record: empty lines may only stand at the
    /// end of the input, and are not seen there.
    /// @throws ToolError  something follows an empty line
    bool next_record(std::string& line);

    /// What messages call the input.
    std::string const& name() const { return bytes_.name(); }

    /// Number of the line that was read last, from 1.
    std::uint64_t number() const { return number_; }

    /// Number of bytes read so far, before they were unpacked.
    std::uint64_t bytes_read() const { return bytes_.bytes_read(); }

    /// A line as messages name it: "reads.fastq: line 7".
    std::string place(std::uint64_t number) const;

    /// Refuses the line that was read last.
    [[noreturn]] void fail(std::string const& fault) const;

private:
    InputBytes bytes_;
    std::size_t max_line_bytes_;
    std::string_view rest_;  // of the piece that was got last
    std::uint64_t number_ = 0;
};

}  // namespace tesk::tool
