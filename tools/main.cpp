// The command line of tesk-bam.

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/annotate.h"
#include "tools/completion.h"
#include "tools/convert.h"
#include "tools/dump_index.h"
#include "tools/import.h"
#include "tools/info.h"
#include "tools/message.h"
#include "tools/report.h"
#include "tools/suggestion.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"
#include "tools/unmapped_reads.h"
#include "tools/validate.h"
#include "tools/view.h"

namespace {

using tesk::tool::AnnotateOptions;
using tesk::tool::ConvertOptions;
using tesk::tool::DumpIndexOptions;
using tesk::tool::ImportOptions;
using tesk::tool::InfoOptions;
using tesk::tool::Packing;
using tesk::tool::ReadsOptions;
using tesk::tool::ReportOptions;
using tesk::tool::ValidateOptions;
using tesk::tool::ViewOptions;

// Exit status.
constexpr int DONE = 0;
constexpr int FAULT = 1;  // the input or the output is at fault
constexpr int WRONG_USE = 2;

constexpr char const* QUIET_HELP = "No progress and no notes on standard error";

// --- Options that several commands have ------------------------------------------

// On the tool and on every command.
void add_version(CLI::App& command) {
    command.set_version_flag("--version", "tesk-bam " TESK_BAM_VERSION,
                             "Print the version and exit");
}

std::string check_kind(std::string const& kind) {
    std::vector<std::string> const known = {"sam", "bam"};
    if (kind == known[0] || kind == known[1]) return "";
    return kind + " not in {sam,bam}" + tesk::tool::did_you_mean(kind, known);
}

void add_kind(CLI::App& command, std::string const& name, std::string& kind,
              std::string const& help) {
    command.add_option(name, kind, help)
        ->check(CLI::Validator(check_kind, ""))
        ->type_name("sam|bam");
}

void add_file(CLI::App& command, std::string const& name, std::string& file,
              std::string const& help) {
    command.add_option(name, file, help)->required()->type_name("");
}

// Replaces a size such as "4G" by its number of bytes.
std::string settle_size(std::string& text) {
    constexpr std::string_view UNITS = "KMGT";
    std::string fault = text + " is no size such as 500M or 4G";
    std::uint64_t number = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, code] = std::from_chars(text.data(), end, number);
    if (code != std::errc() || end - stop > 1) return fault;
    unsigned shift = 0;
    if (stop != end) {
        auto const upper_case = static_cast<char>(*stop & ~0x20);
        std::size_t const unit = UNITS.find(upper_case);
        if (unit == std::string_view::npos) return fault;
        shift = 10 * static_cast<unsigned>(unit + 1);
    }
    if (number > UINT64_MAX >> shift) return fault;
    text = std::to_string(number << shift);
    return "";
}

CLI::Option* add_exact(CLI::App& command, bool& exact) {
    return command.add_flag("--exact", exact,
                            "No repairs: the strict reader, all records in memory");
}

// Goes with the commands' own way of reading alone.
CLI::Option* add_allow_missing_eof(CLI::App& command, bool& allow) {
    return command.add_flag("--allow-missing-eof", allow,
                            "Take a file whose last block is missing");
}

void add_packing(CLI::App& command, Packing& packing, CLI::Option* exact) {
    constexpr unsigned MAX_THREADS = 1024;
    command.add_option("--level", packing.level, "Compression of BAM, 0 to 12 (default: 6)")
        ->check(CLI::Range(0, 12).description(""))
        ->type_name("N")
        ->excludes(exact);
    command.add_option("--threads", packing.threads, "Threads that compress BAM (default: 1)")
        ->check(CLI::Range(1U, MAX_THREADS).description(""))
        ->type_name("N")
        ->excludes(exact);
}

void add_quiet(CLI::App& command, bool& quiet) { command.add_flag("--quiet", quiet, QUIET_HELP); }

// --- Commands --------------------------------------------------------------------

void add_sorting(CLI::App& command, ConvertOptions& options, CLI::Option* exact) {
    command.add_flag("--sort", options.sort, "Sort the records by coordinate");
    command.add_flag("--index", options.index, "Sort, and write the index OUT.bai too");
    command
        .add_option("--memory", options.memory_bytes,
                    "Memory for sorting, such as 500M or 4G (default: half of the machine's)")
        ->transform(CLI::Validator(settle_size, ""))
        ->type_name("SIZE")
        ->excludes(exact);
    command
        .add_option("--tmp", options.tmp,
                    "Folder for sorted records that do not fit (default: that of OUT)")
        ->type_name("FOLDER")
        ->excludes(exact);
}

void add_convert(CLI::App& app, ConvertOptions& options) {
    CLI::App* const command = app.add_subcommand(
        "convert", "Convert between SAM and BAM; sort by coordinate; make an index");
    add_file(*command, "IN", options.in, "SAM or BAM file to read, or - for standard input");
    add_file(*command, "OUT", options.out,
             "SAM or BAM file to write, or - for standard output; may be IN");
    CLI::Option* const exact = add_exact(*command, options.exact);
    add_sorting(*command, options, exact);
    add_kind(*command, "--from", options.from, "Format that IN must have (default: either)");
    add_kind(*command, "--to", options.to, "Format of OUT (default: by its ending; SAM for -)");
    add_packing(*command, options.packing, exact);
    add_allow_missing_eof(*command, options.allow_missing_eof)->excludes(exact);
    add_version(*command);
    add_quiet(*command, options.quiet);
    command->footer(
        "Example: a sorted BAM file reads.bam with its index reads.bam.bai\n"
        "  tesk-bam convert reads.sam reads.bam --index");
    command->final_callback([&options] { tesk::tool::convert(options); });
}

void add_view(CLI::App& app, ViewOptions& options) {
    CLI::App* const command =
        app.add_subcommand("view", "Print records, all or those that overlap a region, as SAM");
    add_file(*command, "FILE", options.file, "SAM or BAM file to read, or - for standard input");
    command
        ->add_option("REGION", options.regions,
                     "NAME, NAME:FIRST or NAME:FIRST-LAST; 1-based, both included")
        ->type_name("");
    command->add_flag("--count", options.count, "Print only the number of records");
    command->add_flag("--no-header", options.no_header, "Print no header");
    add_allow_missing_eof(*command, options.allow_missing_eof);
    add_version(*command);
    add_quiet(*command, options.quiet);
    command->footer(
        "Example: the number of records on the first 50,000 bases of chr1\n"
        "  tesk-bam view reads.bam chr1:1-50,000 --count");
    command->final_callback([&options] { tesk::tool::view(options); });
}

void add_validate(CLI::App& app, ValidateOptions& options, bool& valid) {
    CLI::App* const command =
        app.add_subcommand("validate", "Read a SAM or BAM file and tell all that is wrong with it");
    add_file(*command, "FILE", options.file, "SAM or BAM file to read, or - for standard input");
    command->add_flag("--json", options.json, "Print one JSON object");
    add_allow_missing_eof(*command, options.allow_missing_eof);
    add_version(*command);
    add_quiet(*command, options.quiet);
    command->footer(
        "Exit status: 0 no errors, 1 errors, 2 wrong use.\n"
        "\n"
        "Example: is the file whole?\n"
        "  tesk-bam validate reads.bam");
    command->final_callback([&options, &valid] { valid = tesk::tool::validate(options); });
}

void add_info(CLI::App& app, InfoOptions& options) {
    CLI::App* const command = app.add_subcommand(
        "info", "Sum up a SAM or BAM file: references, records, sort order, read lengths");
    add_file(*command, "FILE", options.file, "SAM or BAM file to read, or - for standard input");
    command->add_flag("--json", options.json, "Print one JSON object");
    add_kind(*command, "--from", options.from, "Format that FILE must have (default: either)");
    CLI::Option* const exact = add_exact(*command, options.exact);
    add_allow_missing_eof(*command, options.allow_missing_eof)->excludes(exact);
    add_version(*command);
    add_quiet(*command, options.quiet);
    command->footer(
        "Example: the number of mapped records\n"
        "  tesk-bam info reads.bam --json | grep -m1 '\"mapped\"'");
    command->final_callback([&options] { tesk::tool::info(options); });
}

void add_report(CLI::App& app, ReportOptions& options) {
    CLI::App* const command = app.add_subcommand(
        "report", "Write an HTML page about a SAM or BAM file: lengths, qualities, coverage");
    add_file(*command, "FILE", options.file, "SAM or BAM file to read, or - for standard input");
    add_file(*command, "OUT", options.out,
             "HTML file to write, its name ends in .html; or - for standard output");
    add_allow_missing_eof(*command, options.allow_missing_eof);
    add_version(*command);
    add_quiet(*command, options.quiet);
    command->footer(
        "Example: a page to look at in a browser\n"
        "  tesk-bam report reads.bam reads.html");
    command->final_callback([&options] { tesk::tool::write_report(options); });
}

void add_dump_index(CLI::App& app, DumpIndexOptions& options) {
    CLI::App* const command = app.add_subcommand("dump-index", "Print a BAI file in readable form");
    add_file(*command, "FILE", options.file, "BAI file to read");
    add_version(*command);
    add_quiet(*command, options.quiet);
    command->footer(
        "Example: the index that convert --index made\n"
        "  tesk-bam dump-index reads.bam.bai");
    command->final_callback([&options] { tesk::tool::dump_index(options); });
}

// What the commands that make records out of reads have in common.
void add_reads_options(CLI::App& command, ReadsOptions& options, std::string const& input) {
    add_file(command, "READS", options.in, input + ", or - for standard input; may be gzip data");
    add_file(command, "OUT", options.out, "SAM or BAM file to write, or - for standard output");
    add_kind(command, "--to", options.to, "Format of OUT (default: by its ending; SAM for -)");
    CLI::Option* const exact = add_exact(command, options.exact);
    add_packing(command, options.packing, exact);
    add_version(command);
    add_quiet(command, options.quiet);
}

void add_import(CLI::App& app, ImportOptions& options) {
    CLI::App* const command =
        app.add_subcommand("import", "Make unmapped records of the reads of a FASTQ file");
    add_reads_options(*command, options.reads, "FASTQ file to read");
    command->add_flag("--keep-comments", options.keep_comments,
                      "Keep the SAM fields that stand after the reads' names");
    command->footer(
        "Example: a BAM file of unmapped reads\n"
        "  tesk-bam import reads.fastq.gz reads.bam");
    command->final_callback([&options] { tesk::tool::import_reads(options); });
}

void add_annotate(CLI::App& app, AnnotateOptions& options) {
    CLI::App* const command = app.add_subcommand(
        "annotate", "Make unmapped records of reads with move tables and modified bases");
    add_reads_options(*command, options.reads, "File to read, a JSON object a line");
    command->footer(
        "Example: one read, and the move table with which it was called\n"
        "  echo '{\"name\": \"r1\", \"sequence\": \"ACG\", \"qualities\": \"III\","
        " \"stride\": 5, \"moves\": [1, 0, 1, 1]}' | tesk-bam annotate - reads.bam");
    command->final_callback([&options] { tesk::tool::annotate_reads(options); });
}

void add_completion(CLI::App& app) {
    CLI::App* const command =
        app.add_subcommand("completion", "Print a script that completes command lines in bash");
    add_version(*command);
    command->footer(
        "Example: completion in this shell\n"
        "  source <(tesk-bam completion)");
    command->final_callback([&app] {
        tesk::tool::TextSink out = tesk::tool::standard_output();
        out.write(tesk::tool::bash_completion(app));
        out.finish();
    });
}

// --- Wrong use -------------------------------------------------------------------

int report_wrong_use(std::string const& message) {
    tesk::tool::print_message(message);
    tesk::tool::print_message("run with --help to see what is possible");
    return WRONG_USE;
}

std::vector<std::string> names_of_commands(CLI::App const& app) {
    std::vector<std::string> names;
    for (CLI::App const* command : app.get_subcommands([](CLI::App const*) { return true; })) {
        names.push_back(command->get_name());
    }
    return names;
}

// The parser itself would only say that there is no command.
std::string unknown_command(CLI::App const& app, int argc, char const* const* argv) {
    if (argc < 2 || argv[1][0] == '-') return "";
    std::vector<std::string> const names = names_of_commands(app);
    for (std::string const& name : names) {
        if (name == argv[1]) return "";
    }
    return std::string("unknown command ") + argv[1] + tesk::tool::did_you_mean(argv[1], names);
}

// What an unknown option of the command was meant to be; empty where there is no
// such option or no guess.
std::string meant_option(CLI::App const& app) {
    if (app.get_subcommands().empty()) return "";
    std::vector<std::string> names;
    for (CLI::Option const* option : app.get_subcommands().front()->get_options()) {
        for (std::string const& name : option->get_lnames()) names.push_back("--" + name);
    }
    for (std::string const& argument : app.remaining(true)) {
        if (argument.rfind("--", 0) != 0) continue;
        return tesk::tool::did_you_mean(argument.substr(0, argument.find('=')), names);
    }
    return "";
}

// Help and version are results; all else that stops the parser is wrong use.
int report_parse_error(CLI::App const& app, CLI::ParseError const& error) {
    if (error.get_exit_code() == 0) {
        app.exit(error);
        std::cout.flush();
        if (std::cout) return DONE;
        tesk::tool::print_message("cannot write to standard output");
        return FAULT;
    }
    return report_wrong_use(error.what() + meant_option(app));
}

int run(int argc, char const* const* argv) {
    CLI::App app("Sequence alignments between SAM, BAM and BAI files", "tesk-bam");
    add_version(app);
    app.footer(
        "Exit status: 0 done, 1 the input or output is at fault, 2 wrong use.\n"
        "\n"
        "Example: from SAM to BAM\n"
        "  tesk-bam convert reads.sam reads.bam");
    app.require_subcommand(1);
    ConvertOptions convert_options;
    ViewOptions view_options;
    ValidateOptions validate_options;
    InfoOptions info_options;
    ReportOptions report_options;
    DumpIndexOptions dump_index_options;
    ImportOptions import_options;
    AnnotateOptions annotate_options;
    bool valid = true;
    add_convert(app, convert_options);
    add_view(app, view_options);
    add_validate(app, validate_options, valid);
    add_info(app, info_options);
    add_report(app, report_options);
    add_dump_index(app, dump_index_options);
    add_import(app, import_options);
    add_annotate(app, annotate_options);
    add_completion(app);
    std::string const unknown = unknown_command(app, argc, argv);
    if (!unknown.empty()) return report_wrong_use(unknown);
    try {
        app.parse(argc, argv);
        return valid ? DONE : FAULT;
    } catch (CLI::ParseError const& e) {
        return report_parse_error(app, e);
    }
}

// Started with a standard stream closed, the next file opened would get its
// number, and messages for people would end up in it. The placeholder is open
// in the wrong direction, so that using the stream still is an error.
void occupy_standard_streams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0) continue;
        ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // gets the number fd
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupy_standard_streams();
    std::signal(SIGXFSZ, SIG_IGN);  // a file that grows too large is a write error like any other
    try {
        return run(argc, argv);
    } catch (tesk::tool::UsageError const& e) {
        tesk::tool::print_message(e.what());
        return WRONG_USE;
    } catch (std::bad_alloc const&) {
        std::fputs("tesk-bam: not enough memory\n", stderr);  // asks for none
        return FAULT;
    } catch (std::exception const& e) {
        tesk::tool::print_message(e.what());
        return FAULT;
    }
}
