// JSON lines for the tool's annotate. What it takes has the columns that the objects
// name, in both ways; and an independent reader finds the move table that went in.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz/alignments.h"
#include "fuzz/imported_reads.h"
#include "fuzz/target.h"
#include "tests/support/annotation_readers.h"
#include "tests/support/text.h"
#include "tools/annotate.h"

namespace {

using Json = nlohmann::json;
using tesk::fuzz::Imported;
using tesk::fuzz::require;
using tesk::fuzz::require_same;

void annotate(tesk::tool::ReadsOptions const& reads) {
    tesk::tool::AnnotateOptions options;
    options.reads = reads;
    tesk::tool::annotate_reads(options);
}

std::vector<Json> objects_of(std::string_view input) {
    std::vector<Json> objects;
    for (std::string_view const line : tesk::test::split(input, '\n')) {
        if (line.empty() || line == "\r") continue;
        objects.push_back(Json::parse(line));
    }
    return objects;
}

void check_moves(Json const& object, std::string const& line) {
    if (!object.contains("moves")) return;
    tesk::test::MoveTable const table = tesk::test::read_move_table(line);
    require(table.stride == object["stride"].get<int>(), "the stride is that of the object");
    require(table.moves == object["moves"].get<std::vector<unsigned>>(),
            "the moves are those of the object");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const input(reinterpret_cast<char const*>(data), size);
    Imported const imported = tesk::fuzz::import_both_ways(input, annotate);
    if (!imported.done || tesk::fuzz::is_gzip(input)) return 0;
    std::vector<Json> const objects = objects_of(input);
    require(objects.size() == imported.lines.size(), "every object has its line");
    tesk::fuzz::BAMFileHandler handler;
    for (std::size_t i = 0; i < objects.size(); ++i) {
        std::string const& line = imported.lines[i];
        std::string const columns = tesk::fuzz::unmapped_columns(
            objects[i]["name"].get<std::string>(), objects[i]["sequence"].get<std::string>(),
            objects[i]["qualities"].get<std::string>());
        require_same(columns, line.substr(0, columns.size()), "columns are those of the object");
        check_moves(objects[i], line);
        require(handler.add_alignment_sam(line), "a handler takes the line");
    }
    return 0;
}
