// Converts SAM files to indexed BAM files, each on a thread of its own.
//
//   example_threads FILE.sam...

#include <exception>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "util/bam/bam_file.h"

namespace {

// Held while a file with an index is written, and while a message is.
std::mutex one_at_a_time;

void convert(std::string const& path) {
    std::string error;
    try {
        tesk::util::bam::BAMFileHandler alignments;  // of this thread alone
        bool done = alignments.read_from_sam_file(path) && alignments.sort();
        std::lock_guard<std::mutex> const lock(one_at_a_time);
        done = done && alignments.write_to_bam_file(path + ".bam", true);
        if (!done) error = alignments.error_message;
    } catch (std::exception const& fault) {  // one that left the thread would end the program
        error = path + ": " + fault.what();
    }
    std::lock_guard<std::mutex> const lock(one_at_a_time);
    if (!error.empty()) std::cerr << error << '\n';
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::thread> threads;
    for (int i = 1; i < argc; ++i) threads.emplace_back(convert, std::string(argv[i]));
    for (std::thread& thread : threads) thread.join();
    return 0;
}
