// Code to be looked up: inlined chains, templates, lambdas, local classes, cold paths, C names. Built in many
// ways.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace subject {

inline int innermost(int value) {
    return value * static_cast<int>(std::strlen(std::getenv("PATH") != nullptr ? "set" : "unset"));
}

inline int middle(int value) {
    int sum = 0;
    for (int round = 0; round < 3; ++round) {
        sum += innermost(value + round);
    }
    return sum;
}

template <class T>
struct HOLDER {
    T value;
    T twice() const { return value + value; }
    operator T() const { return twice(); }
};

__attribute__((noinline)) int outer(int value) {
    const int first = middle(value);
    return first + middle(first + 1);
}

__attribute__((noinline)) std::map<std::string, std::vector<int>> fill(int count) {
    std::map<std::string, std::vector<int>> result;
    for (int index = 0; index < count; ++index) {
        result[std::to_string(index)].push_back(outer(index));
    }
    return result;
}

__attribute__((noinline)) int (*choose(int which))(int) {
    static const auto local = [](int value) {
        if (value < 0) {
            throw std::runtime_error("negative " + std::to_string(value));
        }
        return middle(value);
    };
    struct LOCAL {
        static int call(int value) { return local(value) + innermost(value); }
    };
    return which == 0 ? &outer : &LOCAL::call;
}

static __attribute__((noinline)) double sorted_sum(std::vector<double> values) {
    std::sort(values.begin(), values.end(), [](double left, double right) { return left > right; });
    double sum = HOLDER<double>{values.empty() ? 0.0 : values.front()};
    for (double value : values) {
        sum += value;
    }
    return sum;
}

} // namespace subject

extern "C" __attribute__((visibility("default"))) int subject_entry(int count) {
    auto filled = subject::fill(count);
    int sum = subject::choose(count & 1)(count);
    for (auto& [name, values] : filled) {
        sum += values.front() + static_cast<int>(name.size());
    }
    return sum + static_cast<int>(subject::sorted_sum({1.5, 2.5, static_cast<double>(count)}));
}
