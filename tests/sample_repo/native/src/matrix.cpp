#include "matrix.hpp"

#include <stdexcept>

namespace sample::linalg {

namespace {
constexpr double kZero = 0.0;

void check_dims(const Matrix& a, const Matrix& b)
{
    if (a.cols() != b.rows()) {
        throw std::invalid_argument("dimension mismatch");
    }
}
}  // namespace

Matrix::Matrix(std::size_t rows, std::size_t cols) : rows_(rows), cols_(cols), data_(rows * cols, kZero) {}

// Multiplies this matrix by `other`.
Matrix Matrix::multiply(const Matrix& other) const
{
    check_dims(*this, other);
    Matrix result(rows_, other.cols_);
    for (std::size_t i = 0; i < rows_; ++i) {
        for (std::size_t j = 0; j < other.cols_; ++j) {
            double sum = kZero;
            for (std::size_t k = 0; k < cols_; ++k) {
                sum += at(i, k) * other.at(k, j);
            }
            result.data_[i * other.cols_ + j] = sum;
        }
    }
    return result;
}

Matrix identity(std::size_t n)
{
    Matrix m(n, n);
    for (std::size_t i = 0; i < n; ++i) {
        m.set(i, i, 1.0);
    }
    return m;
}

}  // namespace sample::linalg
