// "2x261120": an array's shape as log lines and error messages print it.
#pragma once

#include <cstddef>
#include <string>

namespace tonwerk {

// Works for any xtensor container or expression.
template <class Array>
std::string shapeText(const Array& a) {
    std::string text;
    for (std::size_t i = 0; i < a.dimension(); ++i) {
        text += (i == 0 ? "" : "x") + std::to_string(a.shape()[i]);
    }
    return text;
}

}  // namespace tonwerk
