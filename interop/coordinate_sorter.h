// Sorts any number of records by coordinate within a given amount of memory.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "interop/record_batch.h"
#include "util/bam/export.h"

namespace tesk::interop {

/// What sorting may take.
struct SorterOptions {
    /// For records and their keys; rounded up to whole pages. Only what is used of it
    /// takes up memory. A record of any size is taken: one that does not fit goes to
    /// the folder by itself.
    std::size_t memory_bytes = std::size_t{1} << 30;
    std::string folder = "/tmp";  ///< for what does not fit
};

/// Takes records and gives them back sorted by refID, those without one last, then
/// by pos; equal ones in the order in which they came.
///
/// What does not fit the memory goes to a file without a name, which the system
/// removes in every outcome. Merging takes the same memory; where the sorted runs are
/// too many for it, or hold huge records, they are merged in several passes, with
/// space for a second copy in the folder.
///
/// Members that can fail return false, with the reason in `error_message`. Later calls
/// fail, too, then, as they do after one that ended by an exception (std::bad_alloc, or
/// one of `take`): "an earlier call was not completed".
class TESK_BAM_EXPORT CoordinateSorter {
public:
    /// Makes a sorter without records.
    explicit CoordinateSorter(SorterOptions options);
    ~CoordinateSorter();
    CoordinateSorter(CoordinateSorter const&) = delete;
    CoordinateSorter& operator=(CoordinateSorter const&) = delete;

    /// Why the last call that returned false did so.
    std::string error_message;

    /// On false: "cannot write a temporary file in " + folder + ": " + reason, or
    /// "not enough memory for a record of " + n + " bytes".
    bool add(RecordBatch const& batch);

    /// Number of records added.
    std::uint64_t n_records() const;
    /// Sorted runs written to the temporary file so far.
    std::size_t n_runs() const;
    /// Where the record that ends last ends, 0-based half-open, of records with a
    /// reference; 0 for none.
    std::int64_t max_end() const;
    /// And its name.
    std::string const& max_end_name() const;

    /// Ends the adding and hands out the records in order, each by a call of
    /// `take`, which returns whether to go on. To be called once.
    ///
    /// @param take  gets a record that is valid during the call
    ///
    /// On false either `take` returned false, and `error_message` is empty, or it is
    /// "cannot read a temporary file in " + folder + ": " + reason, or as for add().
    bool drain(std::function<bool(RecordView)> const& take);

private:
    struct State;
    bool fail();
    bool complete(std::function<bool(State&)> const& call);

    std::unique_ptr<State> state_;
};

}  // namespace tesk::interop
