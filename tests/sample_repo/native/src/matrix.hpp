#pragma once

#include <cstddef>
#include <vector>

namespace sample {
namespace linalg {

/// A dense row-major matrix of doubles.
class Matrix {
public:
    Matrix(std::size_t rows, std::size_t cols);

    /// The element at (r, c).
    double at(std::size_t r, std::size_t c) const { return data_[r * cols_ + c]; }
    Matrix multiply(const Matrix& other) const;
    void set(std::size_t r, std::size_t c, double v) { data_[r * cols_ + c] = v; }
    std::size_t rows() const { return rows_; }
    std::size_t cols() const { return cols_; }

private:
    std::size_t rows_;
    std::size_t cols_;
    std::vector<double> data_;
};

/// The n-by-n identity matrix.
Matrix identity(std::size_t n);

}  // namespace linalg
}  // namespace sample
