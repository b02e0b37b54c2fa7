// Allocates while exceptions pass: in throw, in destructors of frames being left, in nested catches.
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

struct ALLOCATES_AT_END {
    ~ALLOCATES_AT_END() { text = std::make_unique<std::string>(200, 'x'); }
    std::unique_ptr<std::string> text;
};

[[gnu::noinline]] int descend(int depth, std::vector<int>& trail) {
    const ALLOCATES_AT_END guard;
    std::vector<int> own(static_cast<std::size_t>(depth) + 1, depth);
    if (depth == 0)
        throw std::runtime_error("the bottom of " + std::string(100, 'y'));
    try {
        return descend(depth - 1, trail) + own.front();
    } catch (const std::runtime_error& error) {
        trail.push_back(depth);
        if (depth % 3 == 0)
            throw std::runtime_error(error.what() + std::to_string(depth));
        throw;
    }
}

void run() {
    for (int round = 0; round < 200; ++round) {
        std::vector<int> trail;
        try {
            descend(round % 30, trail);
        } catch (const std::exception&) {
        }
    }
}

} // namespace

int main() {
    std::thread other(run);
    run();
    other.join();
    std::puts("done");
}
