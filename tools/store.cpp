#include "tools/store.h"

#include <algorithm>

#include "tools/load.h"
#include "tools/message.h"
#include "tools/tool_error.h"

namespace tesk::tool {

void write_bam(util::bam::BAMFileHandler& alignments, std::string const& path, bool index,
               OutputFile const& output) {
    std::string const& written = output.write_path();
    try {
        call_library(alignments, path,
                     [&] { return alignments.write_to_bam_file(written, index); });
    } catch (ToolError const& e) {
        throw ToolError(output.in_own_names(e.what()));
    }
}

void note_float_arrays(util::bam::BAMFileHandler const& alignments, std::string const& path) {
    using Handler = util::bam::BAMFileHandler;
    auto const is_float_array = [](Handler::AuxData const& field) {
        if (field.type != 'B') return false;
        auto const& array = boost::any_cast<Handler::AuxNumericalArray const&>(field.value);
        return array.type == 'f' && array.count != 0;
    };
    auto const n = std::count_if(alignments.records.begin(), alignments.records.end(),
                                 [&](Handler::BamRecord const& record) {
                                     return std::any_of(record.aux_data.begin(),
                                                        record.aux_data.end(), is_float_array);
                                 });
    if (n == 0) return;
    print_message("note: " + std::to_string(n) + " of " +
                  std::to_string(alignments.records.size()) + " records hold arrays of floats; " +
                  path + " cannot be read back by this tool");
}

}  // namespace tesk::tool
