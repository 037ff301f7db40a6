#include "tools/report_page.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <numeric>
#include <optional>
#include <string_view>

#include "tools/bins.h"
#include "tools/flag.h"
#include "tools/html_table.h"
#include "tools/html_text.h"
#include "tools/plot.h"
#include "tools/report_style.h"

namespace tesk::tool {

namespace {

constexpr std::size_t MAX_NAME_CHARS = 28;  // of a name in a table or a title
constexpr char const* NOTHING = "–";

// --- Parts of a page -------------------------------------------------------------

Cell name_cell(std::string const& name) {
    std::string const shown = elided(name, MAX_NAME_CHARS);
    return {shown, shown == name ? "" : name};
}

std::string note(std::string const& words) {
    return "<p class=\"note\">" + html_text(words) + "</p>\n";
}

std::string empty(std::string const& words) {
    return "<p class=\"empty\">" + html_text(words) + "</p>\n";
}

std::string card(std::string const& title, std::string const& body, bool is_wide = false) {
    return std::string("<section class=\"card") + (is_wide ? " wide" : "") + "\"><h3>" +
           html_text(title) + "</h3>\n" + body + "</section>\n";
}

std::string section(std::string const& title, std::string const& cards) {
    return "<h2>" + html_text(title) + "</h2>\n<div class=\"cards\">\n" + cards + "</div>\n";
}

// Cards one below the other, in one column of a section.
std::string stack(std::string const& cards) {
    return "<div class=\"stack\">\n" + cards + "</div>\n";
}

std::string table_behind(Table const& table) {
    return "<details><summary>Numbers</summary>\n" + html_table(table) + "</details>\n";
}

double share_of(std::uint64_t part, std::uint64_t whole) {
    return whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
}

// --- Plots -----------------------------------------------------------------------

// "150", or "150 to 159".
std::string range_text(std::int64_t first, std::int64_t last) {
    std::string text = grouped(static_cast<std::uint64_t>(first));
    if (last > first) text += " to " + grouped(static_cast<std::uint64_t>(last));
    return text;
}

// Bars of whole numbers: on a linear axis each number has the place around it.
void set_bars(Plot& plot, Bins const& bins) {
    double const half = bins.is_logarithmic ? 0 : 0.5;
    plot.is_logarithmic = bins.is_logarithmic;
    for (Bin const& bin : bins.bins) {
        plot.bars.push_back({static_cast<double>(bin.begin) - half,
                             static_cast<double>(bin.end) - half, bin.count,
                             range_text(bin.begin, bin.end - 1)});
    }
    plot.begin = plot.bars.front().begin;
    plot.end = plot.ticks_end = plot.bars.back().end;
}

// A plot that counts something, with its description, definition and numbers.
std::string plot_with_numbers(Plot plot, std::string const& definition) {
    auto const is_lower = [](Bar const& a, Bar const& b) { return a.count < b.count; };
    Bar const highest = *std::max_element(plot.bars.begin(), plot.bars.end(), is_lower);
    plot.description +=
        "The highest bar is of " + highest.label + ": " + counted(highest.count, plot.y_noun) + ".";
    Table table = {plot.title, {{plot.x_title}, {plot.y_noun + "s"}}};
    for (Bar const& bar : plot.bars) {
        if (bar.count != 0) table.rows.push_back({{{bar.label}, {grouped(bar.count)}}});
    }
    return svg_of(plot) + note(definition) + table_behind(table);
}

// --- Summary ---------------------------------------------------------------------

// A long value is set smaller, so that it stays on one line.
std::string tile(std::string const& name, std::string const& value) {
    constexpr std::size_t LONGEST_LARGE = 9;
    std::string const style = value.size() > LONGEST_LARGE ? " class=\"long\"" : "";
    return "<div><dt>" + html_text(name) + "</dt><dd" + style + ">" + html_text(value) +
           "</dd></div>\n";
}

std::string score_text(std::optional<double> score) {
    return score ? "Q" + decimal(*score, 1) : NOTHING;
}

std::string length_text(double length) {
    return decimal(length, length == std::floor(length) ? 0 : 1);
}

std::string tiles(ReportStatistics const& statistics) {
    Counts const& counts = statistics.summary().counts;
    auto const lengths = statistics.summary().read_lengths.summary();
    std::string const mapped = percent(counts.mapped, counts.records);
    return "<dl class=\"tiles\">\n" + tile("Records", grouped(counts.records)) +
           tile("Mapped", mapped.empty() ? NOTHING : mapped) +
           tile("Bases", lengths ? grouped(lengths->bases) : "0") +
           tile("Median length", lengths ? length_text(lengths->median) : NOTHING) +
           tile("N50", lengths ? grouped(static_cast<std::uint64_t>(lengths->n50)) : NOTHING) +
           tile("Mean quality", score_text(statistics.qualities().mean_of_bases())) + "</dl>\n";
}

std::string records_card(ReportStatistics const& statistics) {
    std::uint64_t const n = statistics.summary().counts.records;
    FlagCounts const& flags = statistics.flags();
    Table table = {"Records", {{"Kind"}, {"Records"}, {"Share"}}};
    auto const add = [&](char const* name, std::uint64_t count) {
        table.rows.push_back({{{name}, {grouped(count)}, {percent(count, n)}}});
    };
    add("All", n);
    add("Primary", statistics.n_primary());
    add("Secondary", flags.with(FLAG_SECONDARY));
    add("Supplementary", flags.with(FLAG_SUPPLEMENTARY, FLAG_SECONDARY));
    add("Mapped", statistics.summary().counts.mapped);
    add("Unmapped", statistics.summary().counts.unmapped);
    add("Paired", flags.with(FLAG_PAIRED));
    add("Properly paired", flags.with(FLAG_PAIRED | FLAG_PROPER_PAIR));
    add("Duplicates", flags.with(FLAG_DUPLICATE));
    add("Failed quality checks", flags.with(FLAG_QC_FAIL));
    return card("Records", html_table(table) + note("By FLAG; shares are of all records."));
}

std::string reads_card(ReportStatistics const& statistics) {
    auto const lengths = statistics.summary().read_lengths.summary();
    std::uint64_t const n_reads = lengths ? lengths->records : 0;
    Table table = {"Reads", {{"Measure"}, {"Value"}}};
    auto const add = [&](char const* name, std::string const& value) {
        table.rows.push_back({{{name}, {value}}});
    };
    add("Reads with bases", grouped(n_reads));
    add("Reads without bases", grouped(statistics.n_primary() - n_reads));
    add("Bases", grouped(lengths ? lengths->bases : 0));
    if (lengths) {
        add("Shortest", grouped(static_cast<std::uint64_t>(lengths->min)));
        add("Longest", grouped(static_cast<std::uint64_t>(lengths->max)));
        double const mean = static_cast<double>(lengths->bases) / static_cast<double>(n_reads);
        add("Mean length", decimal(mean, 1));
        add("Median length", length_text(lengths->median));
        add("N50", grouped(static_cast<std::uint64_t>(lengths->n50)));
        add("Reads without qualities", grouped(statistics.n_without_qualities()));
        add("Mean quality of bases", score_text(statistics.qualities().mean_of_bases()));
        add("Median quality of reads", score_text(statistics.qualities().median_of_reads()));
    }
    return card("Reads",
                html_table(table) +
                    note("A read is a primary record: neither secondary nor supplementary. Half "
                         "of all bases are in reads of at least N50 bases. Mean qualities come "
                         "from error probabilities."));
}

std::string findings_card(std::vector<std::string> const& findings) {
    if (findings.empty()) {
        return card("Repairs and warnings",
                    "<p>None: the file was taken as it stands, and nothing in it looks "
                    "doubtful.</p>\n",
                    true);
    }
    std::string list = "<ul>\n";
    for (std::string const& finding : findings) list += "<li>" + html_text(finding) + "</li>\n";
    return card("Repairs and warnings",
                list + "</ul>\n" +
                    note("What was read otherwise than it stands in the file, and what is kept "
                         "but deserves a look."),
                true);
}

// --- Reads -----------------------------------------------------------------------

std::string length_plot(Plot plot, Bins const& bins, std::int32_t n50,
                        std::string const& definition) {
    set_bars(plot, bins);
    plot.x_title = "Read length in bases";
    std::string const n50_text = grouped(static_cast<std::uint64_t>(n50));
    plot.marker = Tick{static_cast<double>(n50), "N50 " + n50_text};
    plot.description = "N50 is " + n50_text + " bases. ";
    return plot_with_numbers(plot, definition + (bins.is_logarithmic ? " Logarithmic axis." : ""));
}

std::string length_cards(ReadLengths const& lengths) {
    char const* const reads_title = "Reads by length";
    char const* const bases_title = "Bases by read length";
    auto const summary = lengths.summary();
    if (!summary) {
        return card(reads_title, empty("No primary record has bases.")) +
               card(bases_title, empty("No primary record has bases."));
    }
    Bins reads = length_bins(summary->min, summary->max, summary->records);
    Bins bases = reads;
    for (auto const& [length, count] : lengths.counts()) {
        reads.add(length, count);
        bases.add(length, static_cast<std::uint64_t>(length) * count);
    }
    Plot reads_plot;
    reads_plot.id = "lengths";
    reads_plot.title = reads_title;
    reads_plot.y_noun = "read";
    Plot bases_plot;
    bases_plot.id = "bases";
    bases_plot.title = bases_title;
    bases_plot.y_noun = "base";
    std::string const same =
        summary->min == summary->max
            ? " All have " + counted(static_cast<std::uint64_t>(summary->min), "base") + "."
            : "";
    return card(reads_title,
                length_plot(reads_plot, reads, summary->n50,
                            "Primary records that have bases, by their number." + same)) +
           card(bases_title,
                length_plot(bases_plot, bases, summary->n50,
                            "All bases of primary records, by the length of their read."));
}

// A bin for each score from 0 to the largest one that occurs, or a little range.
// @param n  scores from here on do not count
template <typename Counts>
Bins score_bins(Counts const& counts, std::size_t n) {
    std::size_t max = 10;
    for (std::size_t score = 0; score < n; ++score) {
        if (counts[score] != 0) max = std::max(max, score);
    }
    Bins bins;
    for (std::size_t score = 0; score <= max; ++score) {
        auto const number = static_cast<std::int64_t>(score);
        bins.bins.push_back({number, number + 1, counts[score]});
    }
    return bins;
}

std::string base_quality_card(QualityCounts const& qualities) {
    char const* const title = "Quality of bases";
    auto const counts = qualities.bases();
    std::uint64_t const n = std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
    if (n == 0) return card(title, empty("No primary record has qualities."));
    Bins const bins = score_bins(counts, counts.size());
    Plot plot;
    plot.id = "base-quality";
    plot.title = title;
    plot.description = "The mean is " + score_text(qualities.mean_of_bases()) + ". ";
    plot.x_title = "Phred score";
    plot.y_noun = "base";
    set_bars(plot, bins);
    return card(title, plot_with_numbers(plot, "Every base of primary records, by its score."));
}

// Bins of tenths, drawn and named as what they are tenths of.
void set_bars_of_tenths(Plot& plot, Bins const& bins) {
    for (Bin const& bin : bins.bins) {
        auto const begin = static_cast<double>(bin.begin);
        auto const end = static_cast<double>(bin.end);
        std::string label = decimal(begin / 10, 1);
        if (bin.end > bin.begin + 1) label += " to " + decimal((end - 1) / 10, 1);
        plot.bars.push_back({(begin - 0.5) / 10, (end - 0.5) / 10, bin.count, label});
    }
    // To whole numbers, so that there are ticks.
    plot.begin = std::min(plot.bars.front().begin, std::floor(plot.bars.front().end));
    plot.end = plot.ticks_end = std::ceil(plot.bars.back().end);
}

std::string read_quality_card(QualityCounts const& qualities) {
    char const* const title = "Quality of reads";
    auto const& counts = qualities.reads_by_tenth();
    auto const is_used = [](std::uint64_t count) { return count != 0; };
    auto const first = std::find_if(counts.begin(), counts.end(), is_used);
    if (first == counts.end()) return card(title, empty("No primary record has qualities."));
    auto const last = std::find_if(counts.rbegin(), counts.rend(), is_used);
    std::uint64_t const n = std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
    Bins bins = linear_bins(first - counts.begin(), last.base() - counts.begin() - 1, n, 0);
    for (std::size_t tenth = 0; tenth < counts.size(); ++tenth) {
        if (counts[tenth] != 0) bins.add(static_cast<std::int64_t>(tenth), counts[tenth]);
    }
    Plot plot;
    plot.id = "read-quality";
    plot.title = title;
    plot.description = "The median is " + score_text(qualities.median_of_reads()) + ". ";
    plot.x_title = "Phred score of the read";
    plot.y_noun = "read";
    set_bars_of_tenths(plot, bins);
    return card(title,
                plot_with_numbers(
                    plot,
                    "A primary record's score is that of the mean error probability of its bases, "
                    "to a tenth; the mean of its scores would be higher."));
}

// --- Alignments ------------------------------------------------------------------

// Positions of the references that have mapped records, those with most first.
std::vector<std::size_t> used_references(Summary const& summary) {
    auto const n_mapped = [&](std::size_t i) { return summary.references[i].counts.mapped; };
    std::vector<std::size_t> used;
    for (std::size_t i = 0; i < summary.references.size(); ++i) {
        if (n_mapped(i) != 0) used.push_back(i);
    }
    std::stable_sort(used.begin(), used.end(),
                     [&](std::size_t a, std::size_t b) { return n_mapped(a) > n_mapped(b); });
    return used;
}

std::string references_card(ReportStatistics const& statistics) {
    constexpr std::size_t MAX_ROWS = 20;
    char const* const title = "Records by reference";
    Summary const& summary = statistics.summary();
    std::uint64_t const n = summary.counts.records;
    if (n == 0) return card(title, empty("The file has no records."));
    std::vector<std::size_t> const used = used_references(summary);
    Table table = {title, {{"Reference"}, {"Records"}, {"Share"}}};
    table.has_bars = true;
    auto const add = [&](Cell const& name, std::uint64_t count, bool is_rest) {
        if (count == 0) return;
        table.rows.push_back(
            {{name, {grouped(count)}, {percent(count, n)}}, share_of(count, n), is_rest});
    };
    std::uint64_t n_others = 0;
    for (std::size_t i = 0; i < used.size(); ++i) {
        ReferenceSummary const& reference = summary.references[used[i]];
        if (i < MAX_ROWS) add(name_cell(reference.name), reference.counts.mapped, false);
        if (i >= MAX_ROWS) n_others += reference.counts.mapped;
    }
    if (n_others != 0) {
        add({counted(used.size() - MAX_ROWS, "other reference")}, n_others, true);
    }
    add({"Mapped, without a reference"}, statistics.n_mapped_without_reference(), true);
    add({"Unmapped"}, summary.counts.unmapped, true);
    // The longest bar is as long as there is room.
    double longest = 0;
    for (Row const& row : table.rows) longest = std::max(longest, row.share);
    for (Row& row : table.rows) row.share /= longest;
    std::string const n_used =
        used.size() == summary.references.size() ? "all" : grouped(used.size());
    std::string const references =
        summary.references.empty()
            ? "the header lists no references. "
            : n_used + " of " + counted(summary.references.size(), "reference") + " have any. ";
    return card(title, html_table(table) + note("Mapped records of every kind; " + references +
                                                "Shares are of all records."));
}

std::string mapping_quality_card(ReportStatistics const& statistics) {
    constexpr std::size_t NONE = 255;
    char const* const title = "Mapping quality";
    auto const& counts = statistics.mapping_qualities();
    std::uint64_t const n = std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
    if (n == 0) return card(title, empty("No primary record is mapped."));
    Bins const bins = score_bins(counts, NONE);
    Plot plot;
    plot.id = "mapq";
    plot.title = title;
    plot.x_title = "MAPQ";
    plot.y_noun = "record";
    set_bars(plot, bins);
    if (counts[NONE] != 0) {  // apart, at the right end
        double const width = plot.end - plot.begin;
        double const at = plot.end + width / 12;
        double const half = std::max(width / 100, 0.5);
        plot.bars.push_back({at - half, at + half, counts[NONE], "255"});
        plot.end = at + width / 25;
        plot.given_ticks.push_back({at, "255"});
    }
    return card(title, plot_with_numbers(
                           plot, "Mapped primary records. 255 says that the quality is unknown."));
}

std::string cigar_card(CigarCounts const& cigar) {
    constexpr char const* MEANINGS[] = {"aligned", "inserted",     "deleted",
                                        "skipped", "soft-clipped", "hard-clipped",
                                        "padding", "equal",        "different"};
    static_assert(std::size(MEANINGS) == interop::CIGAR_OPERATIONS.size());
    char const* const title = "CIGAR operations";
    std::uint64_t const n =
        std::accumulate(cigar.operations.begin(), cigar.operations.end(), std::uint64_t{0});
    if (n == 0) return card(title, empty("No mapped record has a CIGAR."));
    std::uint64_t const most = *std::max_element(cigar.bases.begin(), cigar.bases.end());
    Table table = {title, {{"Operation"}, {""}, {"Number"}, {"Bases"}}};
    table.n_words = 1;
    table.has_bars = true;
    for (std::size_t code = 0; code < cigar.operations.size(); ++code) {
        if (cigar.operations[code] == 0) continue;
        table.rows.push_back({{{std::string(1, interop::CIGAR_OPERATIONS[code])},
                               {MEANINGS[code]},
                               {grouped(cigar.operations[code])},
                               {grouped(cigar.bases[code])}},
                              share_of(cigar.bases[code], most)});
    }
    return card(title, html_table(table) + note("Of all mapped records. Bars are of bases: of the "
                                                "reference for D and N, of the read otherwise."));
}

std::string flags_card(ReportStatistics const& statistics) {
    struct Meaning {
        Flag flag;
        char const* bit;
        char const* text;
    };
    constexpr Meaning MEANINGS[] = {
        {FLAG_PAIRED, "0x1", "paired"},
        {FLAG_PROPER_PAIR, "0x2", "properly paired"},
        {FLAG_UNMAPPED, "0x4", "unmapped"},
        {FLAG_MATE_UNMAPPED, "0x8", "mate unmapped"},
        {FLAG_REVERSE, "0x10", "reverse strand"},
        {FLAG_MATE_REVERSE, "0x20", "mate on reverse strand"},
        {FLAG_FIRST, "0x40", "first of its template"},
        {FLAG_LAST, "0x80", "last of its template"},
        {FLAG_SECONDARY, "0x100", "secondary"},
        {FLAG_QC_FAIL, "0x200", "failed quality checks"},
        {FLAG_DUPLICATE, "0x400", "duplicate"},
        {FLAG_SUPPLEMENTARY, "0x800", "supplementary"},
    };
    char const* const title = "Flags";
    std::uint64_t const n = statistics.summary().counts.records;
    if (n == 0) return card(title, empty("The file has no records."));
    Table table = {title, {{"Bit"}, {""}, {"Records"}, {"Share"}}};
    table.n_words = 1;
    table.has_bars = true;
    for (Meaning const& meaning : MEANINGS) {
        std::uint64_t const count = statistics.flags().with(meaning.flag);
        table.rows.push_back(
            {{{meaning.bit}, {meaning.text}, {grouped(count)}, {percent(count, n)}},
             share_of(count, n)});
    }
    return card(title, html_table(table) + note("Records whose FLAG has the bit, of all records."));
}

// --- Coverage --------------------------------------------------------------------

constexpr std::size_t MAX_STRIPS = 30;
constexpr double MIN_STRIP_WIDTH = 0.1;  // of the longest reference's strip
constexpr double BINS_OF_LONGEST = 300;

double highest_depth(Coverage const& coverage) {
    double highest = 0;
    for (std::size_t i = 0; i < coverage.n_bins(); ++i) {
        highest = std::max(highest, coverage.depth(i));
    }
    return highest;
}

// The outline of the bins, each of width 1; the highest one is as high as `height`.
std::string outline(Coverage const& coverage, double highest, double height) {
    std::string path = "M0 0";
    std::string last;
    for (std::size_t i = 0; i < coverage.n_bins(); ++i) {
        std::string const level = plain(height * coverage.depth(i) / highest, 1);
        if (level == last) continue;
        path += "H" + std::to_string(i) + "V" + level;
        last = level;
    }
    return path + "H" + std::to_string(coverage.n_bins()) + "V0Z";
}

// @param width  of the strip, 0 to 1
std::string strip(ReferenceSummary const& reference, Coverage const& whole, std::size_t number,
                  double width) {
    constexpr double HEIGHT = 1000;  // the drawing is stretched to its place
    std::string const height = plain(HEIGHT, 0);
    double const n_wanted = std::max(BINS_OF_LONGEST * width, 1.0);
    Coverage const coverage = whole.coarser(
        static_cast<std::int64_t>(std::ceil(static_cast<double>(whole.n_bins()) / n_wanted)));
    double const highest = highest_depth(coverage);
    std::string const n_bins = std::to_string(coverage.n_bins());
    Cell const name = name_cell(reference.name);
    std::string const id = "coverage-" + std::to_string(number);
    std::string const facts = counted(static_cast<std::uint64_t>(reference.length), "base") +
                              " · mean depth " + three_digits(coverage.mean_depth()) + " · up to " +
                              three_digits(highest) + " in bins of " +
                              counted(static_cast<std::uint64_t>(coverage.bin_width()), "base");
    return "<div class=\"track\"><p>" + element("b", name) + " <span>" + html_text(facts) +
           "</span></p>\n<svg class=\"strip\" style=\"width:" + plain(100 * width, 2) +
           "%\" viewBox=\"0 0 " + n_bins + " " + height +
           "\" preserveAspectRatio=\"none\" role=\"img\" aria-labelledby=\"" + id + "-title " + id +
           "-desc\"><title id=\"" + id + "-title\">Depth along " + html_text(reference.name) +
           "</title><desc id=\"" + id + "-desc\">" + html_text(facts) +
           "</desc><path class=\"area\" transform=\"matrix(1 0 0 -1 0 " + height + ")\" d=\"" +
           outline(coverage, highest, HEIGHT) + "\"/></svg></div>\n";
}

// Those of some references that are drawn: the first ones that have any depth. The
// others go to `rest`.
std::vector<std::size_t> drawn_references(ReportStatistics const& statistics,
                                          std::vector<std::size_t> const& used,
                                          std::vector<std::size_t>& rest) {
    std::vector<std::size_t> drawn;
    for (std::size_t const i : used) {
        Coverage const* const coverage = statistics.coverage(i);
        bool const has_depth = coverage != nullptr && coverage->mean_depth() > 0;
        (has_depth && drawn.size() < MAX_STRIPS ? drawn : rest).push_back(i);
    }
    std::sort(drawn.begin(), drawn.end());
    return drawn;
}

std::string strips(ReportStatistics const& statistics, std::vector<std::size_t> const& drawn) {
    std::vector<ReferenceSummary> const& references = statistics.summary().references;
    std::int32_t longest = 1;
    for (std::size_t const i : drawn) longest = std::max(longest, references[i].length);
    std::string html;
    for (std::size_t const i : drawn) {
        double const width = static_cast<double>(references[i].length) / longest;
        html +=
            strip(references[i], *statistics.coverage(i), i + 1, std::max(width, MIN_STRIP_WIDTH));
    }
    return html + note(
                      "Depth is the number of read bases that are aligned (M, = and X) per base "
                      "of a bin; deleted and skipped bases do not count. Of mapped primary and "
                      "supplementary records without duplicates and those that failed quality "
                      "checks. Widths follow the references' lengths, down to a tenth of the "
                      "longest; each reference has its own scale of depths.");
}

std::string other_references(ReportStatistics const& statistics,
                             std::vector<std::size_t> const& rest) {
    constexpr std::size_t MAX_ROWS = 200;
    Table table = {"Other references", {{"Reference"}, {"Length"}, {"Records"}, {"Mean depth"}}};
    for (std::size_t i = 0; i < std::min(rest.size(), MAX_ROWS); ++i) {
        ReferenceSummary const& reference = statistics.summary().references[rest[i]];
        Coverage const* const coverage = statistics.coverage(rest[i]);
        double const depth = coverage == nullptr ? 0 : coverage->mean_depth();
        table.rows.push_back({{name_cell(reference.name),
                               {grouped(static_cast<std::uint64_t>(reference.length))},
                               {grouped(reference.counts.mapped)},
                               {three_digits(depth)}}});
    }
    std::string const more =
        rest.size() <= MAX_ROWS
            ? ""
            : note("Another " + counted(rest.size() - MAX_ROWS, "reference") +
                   " with fewer records are not listed; tesk-bam info --json lists all.");
    return card("Other references", html_table(table) + more, true);
}

std::string coverage_section(ReportStatistics const& statistics) {
    std::vector<std::size_t> rest;
    std::vector<std::size_t> const drawn =
        drawn_references(statistics, used_references(statistics.summary()), rest);
    std::string const title =
        drawn.size() < MAX_STRIPS || rest.empty()
            ? "Depth along each reference that has any"
            : "Depth along the " + counted(MAX_STRIPS, "reference") + " with most records";
    std::string cards = drawn.empty()
                            ? card("Depth", empty("No bases are aligned to a reference."), true)
                            : card(title, strips(statistics, drawn), true);
    if (!rest.empty()) cards += other_references(statistics, rest);
    return section("Coverage", cards);
}

// --- Modified bases --------------------------------------------------------------

constexpr std::size_t VALUES_PER_BIN = 8;

// Names of the codes that have one; numbers are those of the ChEBI database.
std::string name_of_code(std::string const& code) {
    struct Name {
        char code;
        char const* name;
    };
    constexpr Name NAMES[] = {{'m', "5mC"},   {'h', "5hmC"}, {'f', "5fC"},  {'c', "5caC"},
                              {'g', "5hmU"},  {'e', "5fU"},  {'b', "5caU"}, {'a', "6mA"},
                              {'o', "8oxoG"}, {'n', "Xao"}};
    if (code.empty()) return "no code";
    if (code[0] >= '0' && code[0] <= '9') return "ChEBI " + code;
    for (Name const& name : NAMES) {
        if (code[0] == name.code) return name.name;
    }
    return "";
}

// Such as "C+m".
std::string sign_of(Modification const& kind) {
    return std::string(1, kind.base) + kind.strand + kind.code;
}

std::string kinds_table(std::vector<Modification> const& kinds) {
    Table table = {"Calls", {{"Modification"}, {""}, {"Reads"}, {"Calls"}, {"Likely"}, {"Share"}}};
    table.n_words = 1;
    for (Modification const& kind : kinds) {
        auto const& counts = kind.by_probability;
        auto const middle = counts.begin() + counts.size() / 2;
        std::uint64_t const n = std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
        std::uint64_t const n_likely = std::accumulate(middle, counts.end(), std::uint64_t{0});
        table.rows.push_back({{name_cell(sign_of(kind)),
                               name_cell(name_of_code(kind.code)),
                               {grouped(kind.n_reads)},
                               {grouped(kind.n_calls)},
                               {n == 0 ? NOTHING : grouped(n_likely)},
                               {n == 0 ? NOTHING : percent(n_likely, n)}}});
    }
    return html_table(table);
}

std::string probabilities_card(Modification const& kind, std::size_t number) {
    Plot plot;
    plot.id = "modification-" + std::to_string(number);
    std::string const name = name_of_code(kind.code);
    std::string const sign = elided(sign_of(kind), MAX_NAME_CHARS);
    plot.title = "Probabilities of " + sign;
    plot.x_title = "Value of Ml";
    plot.y_noun = "call";
    Bins bins;
    for (std::size_t value = 0; value < kind.by_probability.size(); ++value) {
        auto const at = static_cast<std::int64_t>(value);
        if (value % VALUES_PER_BIN == 0) {
            bins.bins.push_back({at, at + static_cast<std::int64_t>(VALUES_PER_BIN), 0});
        }
        bins.bins.back().count += kind.by_probability[value];
    }
    set_bars(plot, bins);
    plot.ticks_end = 0;
    for (int const value : {0, 64, 128, 192, 255}) {
        plot.given_ticks.push_back({static_cast<double>(value), std::to_string(value)});
    }
    return card(
        "Probabilities of " + sign + (name.empty() ? "" : ", " + elided(name, MAX_NAME_CHARS)),
        plot_with_numbers(plot,
                          "Calls by the value of Ml: v stands for probabilities from "
                          "v/256 to (v + 1)/256."));
}

// What could not be counted, a sentence each; empty where all could.
std::string faults_text(ModifiedBases const& modified_bases) {
    std::string text;
    for (std::size_t i = 0; i < N_MODIFICATION_FAULTS; ++i) {
        auto const fault = static_cast<ModificationFault>(i);
        std::uint64_t const n = modified_bases.n_faulty(fault);
        if (n == 0) continue;
        text +=
            "<li>" + html_text(counted(n, "read") + " not counted: " + text_of(fault)) + "</li>\n";
    }
    std::uint64_t const n_others = modified_bases.n_calls_of_other_kinds();
    if (n_others != 0) {
        text += "<li>" +
                html_text(counted(n_others, "call") + " of more kinds than " +
                          std::to_string(ModifiedBases::MAX_KINDS) + " not listed") +
                "</li>\n";
    }
    return text.empty() ? "" : "<ul>\n" + text + "</ul>\n";
}

// Those kinds that have most calls with a probability, in their order.
std::vector<Modification> drawn_kinds(std::vector<Modification> const& kinds) {
    constexpr std::size_t MAX_PLOTS = 12;
    auto const n_values = [](Modification const& kind) {
        return std::accumulate(kind.by_probability.begin(), kind.by_probability.end(),
                               std::uint64_t{0});
    };
    std::vector<std::uint64_t> numbers;
    std::transform(kinds.begin(), kinds.end(), std::back_inserter(numbers), n_values);
    std::sort(numbers.begin(), numbers.end(), std::greater<>());
    std::uint64_t const least = numbers.size() > MAX_PLOTS ? numbers[MAX_PLOTS - 1] : 1;
    std::vector<Modification> drawn;
    for (Modification const& kind : kinds) {
        if (n_values(kind) >= std::max<std::uint64_t>(least, 1) && drawn.size() < MAX_PLOTS) {
            drawn.push_back(kind);
        }
    }
    return drawn;
}

// Nothing where the file has no such fields.
std::string modified_bases_section(ModifiedBases const& modified_bases) {
    if (modified_bases.n_reads() == 0) return "";
    std::vector<Modification> const kinds = modified_bases.sorted_kinds();
    std::string body = kinds.empty() ? empty("No calls could be counted.") : kinds_table(kinds);
    body += faults_text(modified_bases) +
            note("From Mm and Ml, or MM and ML, of " +
                 counted(modified_bases.n_reads(), "primary record") +
                 ": base in the read as it was sequenced, strand and code. Reads are those with a "
                 "list of calls for it; likely calls have a value of Ml of 128 or more, which is a "
                 "probability of one half.");
    std::string cards = card("Calls", body, true);
    std::size_t number = 0;
    for (Modification const& kind : drawn_kinds(kinds)) cards += probabilities_card(kind, ++number);
    return section("Modified bases", cards);
}

// --- The page --------------------------------------------------------------------

std::string file_name(std::string const& path) { return path.substr(path.rfind('/') + 1); }

std::string head(PageContent const& content) {
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
           "style-src 'unsafe-inline'\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<meta name=\"color-scheme\" content=\"light dark\">\n"
           "<meta name=\"generator\" content=\"tesk-bam " TESK_BAM_VERSION "\">\n<title>" +
           html_text(file_name(content.name)) + "</title>\n<style>" + REPORT_STYLE +
           "</style>\n</head>\n";
}

std::string title(PageContent const& content) {
    Summary const& summary = content.statistics.summary();
    std::string const facts = std::string(kind_name(content.kind)) + " · sort order " +
                              summary.sort_order + " · " +
                              counted(summary.references.size(), "reference");
    return "<header>\n<h1><bdi>" + html_text(file_name(content.name)) +
           "</bdi></h1>\n<p class=\"quiet\">" + html_text(facts) + "</p>\n" +
           tiles(content.statistics) + "</header>\n";
}

}  // namespace

std::string html_page(PageContent const& content) {
    ReportStatistics const& statistics = content.statistics;
    return head(content) + "<body>\n" + title(content) + "<main>\n" +
           section("Summary", records_card(statistics) + reads_card(statistics) +
                                  findings_card(content.findings)) +
           section("Reads", length_cards(statistics.summary().read_lengths) +
                                base_quality_card(statistics.qualities()) +
                                read_quality_card(statistics.qualities())) +
           section("Alignments",
                   stack(references_card(statistics) + cigar_card(statistics.cigar())) +
                       stack(mapping_quality_card(statistics) + flags_card(statistics))) +
           coverage_section(statistics) + modified_bases_section(statistics.modified_bases()) +
           "</main>\n<footer>Made by tesk-bam " TESK_BAM_VERSION
           " report.</footer>\n</body>\n</html>\n";
}

}  // namespace tesk::tool
