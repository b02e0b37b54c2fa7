// Code to be looked up: inlined chains, templates, lambdas, local classes, cold paths. Built in many ways.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace subject {

inline int innermost(int value) {
    return value * static_cast<int>(std::string(std::getenv("PATH")).size());
}
inline int middle(int value) {
    int sum = 0;
    for (int round = 0; round < 3; ++round)
        sum += innermost(value + round);
    return sum;
}
[[gnu::noinline]] int outer(int value) {
    const int first = middle(value);
    return first + middle(first + 1);
}

[[gnu::noinline]] int (*choose(int which))(int) {
    static const auto local = [](int value) {
        if (value < 0)
            throw std::runtime_error("negative " + std::to_string(value));
        return middle(value);
    };
    struct LOCAL {
        static int call(int value) { return local(value) + innermost(value); }
    };
    return which == 0 ? &outer : &LOCAL::call;
}

} // namespace subject

extern "C" __attribute__((visibility("default"))) int subject_entry(int count) {
    std::map<std::string, std::vector<int>> filled;
    for (int index = 0; index < count; ++index)
        filled[std::to_string(index)].push_back(subject::outer(index));
    int sum = subject::choose(count & 1)(count);
    for (auto& [name, values] : filled) {
        std::sort(values.begin(), values.end(), [](int left, int right) { return left > right; });
        sum += values.front() + static_cast<int>(name.size());
    }
    return sum;
}
