// Bytes of a caller's array, which are not copied.

#pragma once

#include <cstddef>
#include <string>

#include "data_wrappers/vec_view.h"
#include "python/support.h"

namespace tesk::python {

/// A hold on an array of uint8: of NumPy, or any other object with a buffer.
class ByteArray {
public:
    /// @param name   what messages call it
    /// Raises TypeError with one of
    ///   name + ": an array of uint8 is needed, not " + type
    ///   name + ": an array of uint8 is needed, not of " + dtype +
    ///         ": convert it with astype(numpy.uint8)"
    ByteArray(std::string name, py::handle array);
    ~ByteArray() { PyBuffer_Release(&buffer_); }
    ByteArray(ByteArray const&) = delete;
    ByteArray& operator=(ByteArray const&) = delete;

    int n_dimensions() const { return buffer_.ndim; }
    std::size_t length(int dimension) const {
        return static_cast<std::size_t>(buffer_.shape[dimension]);
    }

    /// All elements of an array of one dimension, or of two, row by row.
    /// Raises TypeError with one of
    ///   name + ": one dimension is needed, not 3"   or "one or two dimensions are"
    ///   name + ": elements at negative steps cannot be passed on: copy them with
    ///         numpy.ascontiguousarray()"  (one line)
    ///   name + ": rows that do not follow each other cannot be passed on: copy them
    ///         with numpy.ascontiguousarray()"  (one line)
    data_wrappers::VecView<unsigned char> view(int max_dimensions) const;

private:
    std::string name_;
    Py_buffer buffer_{};
};

}  // namespace tesk::python
