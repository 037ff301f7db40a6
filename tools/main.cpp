// The command line of tesk-bam.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "tools/annotate.h"
#include "tools/convert.h"
#include "tools/dump_index.h"
#include "tools/import.h"
#include "tools/info.h"
#include "tools/message.h"
#include "tools/tool_error.h"
#include "tools/unmapped_reads.h"

namespace {

using tesk::tool::AnnotateOptions;
using tesk::tool::ConvertOptions;
using tesk::tool::DumpIndexOptions;
using tesk::tool::ImportOptions;
using tesk::tool::InfoOptions;
using tesk::tool::ReadsOptions;

// Exit status.
constexpr int DONE = 0;
constexpr int FAULT = 1;  // the input or the output is at fault
constexpr int WRONG_USE = 2;

constexpr char const* QUIET_HELP = "No progress and no notes on standard error";

// On the tool and on every command.
void add_version(CLI::App& command) {
    command.set_version_flag("--version", "tesk-bam " TESK_BAM_VERSION,
                             "Print the version and exit");
}

void add_kind(CLI::App& command, std::string const& name, std::string& kind,
              std::string const& help) {
    CLI::IsMember known({"sam", "bam"});
    known.description("");  // type_name() says it better
    command.add_option(name, kind, help)->check(known)->type_name("sam|bam");
}

void add_convert(CLI::App& app, ConvertOptions& options) {
    CLI::App* const command = app.add_subcommand(
        "convert", "Convert between SAM and BAM; sort by coordinate; make an index");
    command->add_option("IN", options.in, "SAM or BAM file to read")->required()->type_name("");
    command
        ->add_option("OUT", options.out,
                     "SAM or BAM file to write, or - for SAM on standard output; may be IN")
        ->required()
        ->type_name("");
    command->add_flag("--sort", options.sort, "Sort the records by coordinate");
    command->add_flag("--index", options.index, "Sort, and write the index OUT.bai too");
    add_kind(*command, "--from", options.from, "Format of IN (default: by its ending)");
    add_kind(*command, "--to", options.to, "Format of OUT (default: by its ending)");
    add_version(*command);
    command->add_flag("--quiet", options.quiet, QUIET_HELP);
    command->footer(
        "Example: a sorted BAM file reads.bam with its index reads.bam.bai\n"
        "  tesk-bam convert reads.sam reads.bam --index");
    command->final_callback([&options] { tesk::tool::convert(options); });
}

void add_dump_index(CLI::App& app, DumpIndexOptions& options) {
    CLI::App* const command = app.add_subcommand("dump-index", "Print a BAI file in readable form");
    command->add_option("FILE", options.file, "BAI file to read")->required()->type_name("");
    add_version(*command);
    command->add_flag("--quiet", options.quiet, QUIET_HELP);
    command->footer(
        "Example: the index that convert --index made\n"
        "  tesk-bam dump-index reads.bam.bai");
    command->final_callback([&options] { tesk::tool::dump_index(options); });
}

void add_info(CLI::App& app, InfoOptions& options) {
    CLI::App* const command = app.add_subcommand(
        "info", "Sum up a SAM or BAM file: references, records, sort order, read lengths");
    command->add_option("FILE", options.file, "SAM or BAM file to read")->required()->type_name("");
    command->add_flag("--json", options.json, "Print one JSON object");
    add_kind(*command, "--from", options.from, "Format of FILE (default: by its ending)");
    add_version(*command);
    command->add_flag("--quiet", options.quiet, QUIET_HELP);
    command->footer(
        "Example: the number of mapped records\n"
        "  tesk-bam info reads.bam --json | grep -m1 '\"mapped\"'");
    command->final_callback([&options] { tesk::tool::info(options); });
}

// What the commands that make records out of reads have in common.
void add_reads_options(CLI::App& command, ReadsOptions& options, std::string const& input) {
    command.add_option("READS", options.in, input + ", or - for standard input; may be gzip data")
        ->required()
        ->type_name("");
    command
        .add_option("OUT", options.out, "SAM or BAM file to write, or - for SAM on standard output")
        ->required()
        ->type_name("");
    add_kind(command, "--to", options.to, "Format of OUT (default: by its ending)");
    add_version(command);
    command.add_flag("--quiet", options.quiet, QUIET_HELP);
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

// Help and version are results; all else that stops the parser is wrong use.
int report_parse_error(CLI::App const& app, CLI::ParseError const& error) {
    if (error.get_exit_code() == 0) {
        app.exit(error);
        std::cout.flush();
        if (std::cout) return DONE;
        tesk::tool::print_message("cannot write to standard output");
        return FAULT;
    }
    tesk::tool::print_message(error.what());
    tesk::tool::print_message("run with --help to see what is possible");
    return WRONG_USE;
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
    DumpIndexOptions dump_index_options;
    InfoOptions info_options;
    ImportOptions import_options;
    AnnotateOptions annotate_options;
    add_convert(app, convert_options);
    add_dump_index(app, dump_index_options);
    add_info(app, info_options);
    add_import(app, import_options);
    add_annotate(app, annotate_options);
    try {
        app.parse(argc, argv);
        return DONE;
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
    } catch (std::exception const& e) {
        tesk::tool::print_message(e.what());
        return FAULT;
    }
}
