// The folder of sample files that the environment variable TESK_BAM_REAL_DATA names.

#pragma once

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_file.h"

namespace tesk::test {

/// Tests on sample files; without a folder they are skipped, and say so.
class RealDataTest : public testing::Test {
protected:
    void SetUp() override {
        char const* const folder = std::getenv("TESK_BAM_REAL_DATA");
        if (folder == nullptr || *folder == '\0') {
            GTEST_SKIP() << "no real data: set TESK_BAM_REAL_DATA to the folder of sample files";
        }
        folder_ = folder;
        ASSERT_TRUE(std::filesystem::is_directory(folder_)) << folder_ << " is no folder";
    }

    std::string path_of(std::string const& file) const { return (folder_ / file).string(); }

    std::filesystem::path folder_;
    TempDir dir_;
};

/// File names as test names.
/// @tparam Case  has a member `file`
template <typename Case>
std::string test_name(testing::TestParamInfo<Case> const& info) {
    std::string name = info.param.file;
    for (char& c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
    }
    return name;
}

}  // namespace tesk::test
