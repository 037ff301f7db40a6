// Handlers and records as Python holds them.
//
// The library's list of records moves its elements, so Python never holds a pointer
// into it. A record of a handler is a place in its list, looked up at each access;
// the handler lives as long as any of its records is held.

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "python/support.h"
#include "util/bam/bam_file.h"

namespace tesk::python {

using util::bam::BAMFileHandler;
using BamRecord = BAMFileHandler::BamRecord;

/// Says of an object, while this one lives, that a thread works on it without the GIL.
class InUse {
public:
    explicit InUse(bool& is_in_use) : is_in_use_(is_in_use) { is_in_use_ = true; }
    ~InUse() { is_in_use_ = false; }
    InUse(InUse const&) = delete;
    InUse& operator=(InUse const&) = delete;

private:
    bool& is_in_use_;
};

/// A handler that one thread uses at a time.
///
/// All members belong to the thread that has the GIL.
class Handler {
public:
    Handler() = default;
    Handler(Handler const&) = delete;
    Handler& operator=(Handler const&) = delete;

    /// The library's handler. Raises Error while another thread works on it.
    BAMFileHandler& library() {
        if (is_in_use_) raise_error("The handler is in use by another thread");
        return library_;
    }

    /// Calls `call` with the library's handler while other threads may run Python.
    /// Raises Error with the library's message where it returns false.
    template <typename Call>
    void work(Call call) {
        library();
        require(without_gil(call), library_.error_message);
    }

    /// Number of times that records moved to other places, or went.
    std::uint64_t n_moves() const { return n_moves_; }
    void note_move() { ++n_moves_; }

private:
    template <typename Call>
    bool without_gil(Call call) {
        InUse const in_use(is_in_use_);
        py::gil_scoped_release const release;
        return call(library_);
    }

    BAMFileHandler library_;
    bool is_in_use_ = false;
    std::uint64_t n_moves_ = 0;
};

/// A record of a handler, or one on its own.
class Record {
public:
    /// The record at a place of a handler's list.
    Record(std::shared_ptr<Handler> handler, std::size_t place)
        : handler_(std::move(handler)), place_(place), n_moves_(handler_->n_moves()) {}

    explicit Record(BamRecord record) : own_(std::make_shared<BamRecord>(std::move(record))) {}

    /// The library's record, good until code of Python runs. Raises Error where the
    /// list has changed so that the record may be elsewhere, or gone.
    BamRecord& get() const;

private:
    std::shared_ptr<Handler> handler_;  // null: `own_` is the record
    std::size_t place_ = 0;
    std::uint64_t n_moves_ = 0;
    std::shared_ptr<BamRecord> own_;
};

/// The optional fields of a record, as Python sees them.
struct AuxDataList {
    Record record;
};

/// Whether two records have the same optional fields, in the same order.
bool has_equal_fields(BamRecord const& a, BamRecord const& b);

/// The list of a handler's records, as Python sees it.
py::object make_record_list(std::shared_ptr<Handler> handler);

void bind_aux_data(py::module_& module);
void bind_records(py::module_& module);
void bind_handler(py::module_& module);
void bind_sam_lines(py::module_& module);
void bind_annotations(py::module_& module);

}  // namespace tesk::python
