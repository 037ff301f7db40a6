// What every part of the Python module needs: texts, numbers and errors.

#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

#include <pybind11/pybind11.h>

namespace tesk::python {

namespace py = pybind11;

/// A text of the library for Python: bytes that are no UTF-8 become lone surrogates,
/// as in file names ("surrogateescape").
py::str to_str(std::string_view bytes);

/// A text from Python, an argument of type str: the way back.
struct Text {
    std::string bytes;
};

/// Makes the classes of the errors, and lets exceptions of the library become them.
void bind_errors(py::module_& module);

/// Raises tesk_bam.Error.
[[noreturn]] void raise_error(std::string_view message);

/// Raises an exception of Python, such as PyExc_TypeError.
[[noreturn]] void raise(PyObject* type, std::string_view message);

/// Raises tesk_bam.Error with the library's message unless a call was successful.
inline void require(bool done, std::string const& error_message) {
    if (!done) raise_error(error_message);
}

/// An integer from Python between two limits.
/// @param name  what messages call it: name + ": 300 is not in 0 to 255"
std::int64_t checked_integer(char const* name, py::handle value, std::int64_t min,
                             std::int64_t max);

/// An integer from Python that fits a type of the library.
template <typename Integer>
Integer checked(char const* name, py::handle value,
                Integer min = std::numeric_limits<Integer>::min()) {
    static_assert(sizeof(Integer) < 8, "limits are compared in 64 bits");
    return static_cast<Integer>(
        checked_integer(name, value, min, std::numeric_limits<Integer>::max()));
}

/// An index from Python. Raises TypeError where it is none.
Py_ssize_t index_from(py::handle index);

/// Position that an index means in a list; negative ones count from its end. Raises
/// IndexError with a message where there is none.
std::size_t position_in(std::size_t size, Py_ssize_t index, char const* message);

}  // namespace tesk::python

template <>
struct pybind11::detail::type_caster<tesk::python::Text> {
    PYBIND11_TYPE_CASTER(tesk::python::Text, const_name("str"));

    bool load(handle source, bool);
};
