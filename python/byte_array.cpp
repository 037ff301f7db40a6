#include "python/byte_array.h"

#include <string_view>
#include <utility>

namespace tesk::python {

namespace {

// What an array holds, in NumPy's words where it is one.
std::string element_type(py::handle array, char const* format) {
    if (py::hasattr(array, "dtype")) return py::str(array.attr("dtype"));
    return std::string("format '") + (format == nullptr ? "" : format) + "'";
}

}  // namespace

ByteArray::ByteArray(std::string name, py::handle array) : name_(std::move(name)) {
    std::string const needed = name_ + ": an array of uint8 is needed, not ";
    if (PyObject_CheckBuffer(array.ptr()) == 0) {
        raise(PyExc_TypeError, needed + Py_TYPE(array.ptr())->tp_name);
    }
    bool const has_buffer =
        PyObject_GetBuffer(array.ptr(), &buffer_, PyBUF_STRIDES | PyBUF_FORMAT) == 0;
    bool const is_bytes = has_buffer && buffer_.itemsize == 1 && buffer_.format != nullptr &&
                          std::string_view(buffer_.format) == "B";
    if (is_bytes) return;
    PyErr_Clear();  // of an array whose elements no buffer can describe
    std::string const type = element_type(array, has_buffer ? buffer_.format : nullptr);
    PyBuffer_Release(&buffer_);
    raise(PyExc_TypeError, needed + "of " + type + ": convert it with astype(numpy.uint8)");
}

data_wrappers::VecView<unsigned char> ByteArray::view(int max_dimensions) const {
    int const n = buffer_.ndim;
    if (n == 0 || n > max_dimensions) {
        raise(PyExc_TypeError,
              name_ + ": one " + (max_dimensions == 1 ? "dimension is" : "or two dimensions are") +
                  " needed, not " + std::to_string(n));
    }
    auto const* const data = static_cast<unsigned char const*>(buffer_.buf);
    auto const size = static_cast<std::size_t>(buffer_.len);
    // A dimension of one element has a step of no meaning.
    Py_ssize_t step = buffer_.strides[n - 1];
    if (n == 2 && buffer_.shape[1] == 1) step = buffer_.strides[0];
    if (size <= 1) step = 1;
    if (step < 0) {
        raise(PyExc_TypeError, name_ +
                                   ": elements at negative steps cannot be passed on: copy "
                                   "them with numpy.ascontiguousarray()");
    }
    bool const has_rows = n == 2 && size > 1 && buffer_.shape[0] > 1 && buffer_.shape[1] > 1;
    if (has_rows && buffer_.strides[0] != buffer_.shape[1] * step) {
        raise(PyExc_TypeError, name_ +
                                   ": rows that do not follow each other cannot be passed on: "
                                   "copy them with numpy.ascontiguousarray()");
    }
    return {data, size, static_cast<std::size_t>(step)};
}

}  // namespace tesk::python
