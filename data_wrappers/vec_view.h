// VecView: a non-owning, read-only view of evenly spaced elements of an array.

#pragma once

#include <cstddef>

namespace tesk::data_wrappers {

/// A view of `size` elements that lie `stride` elements apart in memory.
///
/// With a stride of 1 it is a plain contiguous array; a column of a row-major
/// matrix is a view whose stride is the length of a row. The view never owns
/// what it points at: the array must outlive it, and nothing is written
/// through it. An aggregate: `VecView<std::uint8_t>{pointer, size, stride}`.
template <typename T>
struct VecView {
    T const* data;       ///< first element; not read when size is 0
    std::size_t size;    ///< number of elements in the view
    std::size_t stride;  ///< step between neighbours, counted in elements

    /// Element k, which lies at `data + k * stride`; k < size, unchecked.
    T const& operator[](std::size_t k) const { return data[k * stride]; }
};

}  // namespace tesk::data_wrappers
