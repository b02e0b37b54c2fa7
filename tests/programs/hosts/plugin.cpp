// Loaded and unloaded in a loop by many threads.
#include <map>
#include <string>

extern "C" __attribute__((visibility("default"))) std::size_t plugin_work(int seed) {
    std::map<int, std::string> words;
    for (int index = 0; index < 20; ++index)
        words[seed + index] = std::string(static_cast<std::size_t>(30 + index), 'x');
    return words.size() + words[seed].size();
}
