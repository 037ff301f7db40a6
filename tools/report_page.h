// The page that "tesk-bam report" writes.

#pragma once

#include <string>
#include <vector>

#include "tools/file_kind.h"
#include "tools/report_statistics.h"

namespace tesk::tool {

/// A file, and what was counted in it.
struct PageContent {
    std::string name;  // of the file
    FileKind kind;
    ReportStatistics const& statistics;
    std::vector<std::string> findings;  // repairs and warnings, a line each
};

/// One HTML page that needs nothing but itself: no script, no other file.
std::string html_page(PageContent const& content);

}  // namespace tesk::tool
