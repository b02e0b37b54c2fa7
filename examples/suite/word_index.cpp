// Indexes the words of 64 documents on 4 threads.
//
// The steps are ordered so that every figure of the reports is known beforehand; README.md lists them:
//
//     main      archive  documents  query |            | drop query |          | join, drop words, postings
//     workers                             | scratch    |            | documents|
//                                         | words      |            | scratch  |
//                                         start        tide         ebb
//     bin       archive  read       query | words                              | teardown,      postings
//
// Nothing big is freed before the tide, and at the tide main alone frees one block: that free finds the
// process at its highest, and the peak figures of all sites and bins are taken there. No bin is opened
// between the tide and the join, because opening a bin may take memory too.
#include "text_source.h"
#include "word_table.h"

#include <vbx/mem.h>

#include <array>
#include <barrier>
#include <cstdio>
#include <functional>
#include <string_view>
#include <thread>

static MEM_INITIALIZER mem_initializer("word_index");

namespace {

constexpr int WORKERS = 4;
constexpr int DOCUMENTS_PER_WORKER = 16;
constexpr std::size_t SCRATCH_SIZE = 3000;
constexpr std::size_t QUERY_SIZE = 100;

using MEETING = std::barrier<>;
using DOCUMENTS = std::array<char*, DOCUMENTS_PER_WORKER>;

struct SHARE {
    DOCUMENTS documents;
    WORD* words = nullptr;
};
using SHARES = std::array<SHARE, WORKERS>;

// A report names the function that holds the call, so these must not dissolve in their callers.
[[gnu::noinline]] char* make_scratch() {
    return new char[SCRATCH_SIZE];
}
[[gnu::noinline]] char* make_query() {
    return new char[QUERY_SIZE];
}

// One word after the other, by way of the scratch.
WORD* index_document(WORD* words, std::string_view text, long number, char* scratch) {
    while (!text.empty()) {
        const std::size_t length = text.find(' ');
        text.copy(scratch, length);
        words = table_add_word(words, {scratch, length}, number);
        text.remove_prefix(length + 1);
    }
    return words;
}

void work(SHARE& share, MEETING& start, MEETING& tide, MEETING& ebb) {
    start.arrive_and_wait();
    char* const scratch = make_scratch();
    long number = 0;
    for (const char* const document : share.documents)
        share.words = index_document(share.words, document, number++, scratch);
    tide.arrive_and_wait();
    ebb.arrive_and_wait();
    for (char* const document : share.documents)
        text_release_document(document);
    delete[] scratch;
}

int parse(SHARES& shares) {
    const MEM_PROFILE_BIN_SCOPE parsing("parse", "input");
    {
        const MEM_PROFILE_BIN_SCOPE opening("archive");
        for (int archive = 0; archive < 3; ++archive)
            text_open_archive();
    }
    const MEM_PROFILE_BIN_SCOPE reading("read");
    int number = 0;
    for (SHARE& share : shares)
        for (char*& document : share.documents)
            document = text_read_document(number++);
    return number;
}

const char* ask() {
    const MEM_PROFILE_BIN_SCOPE asking("query", "search");
    return make_query();
}

// The workers allocate while main has the bin of the words open: a bin is the whole process's.
[[gnu::noinline]] void build(SHARES& shares, const char* query) {
    const MEM_PROFILE_BIN_SCOPE building("build", "index");
    MEETING start(WORKERS + 1);
    MEETING tide(WORKERS + 1);
    MEETING ebb(WORKERS + 1);
    std::array<std::thread, WORKERS> workers;
    for (std::size_t index = 0; index < workers.size(); ++index)
        workers[index] =
            std::thread(work, std::ref(shares[index]), std::ref(start), std::ref(tide), std::ref(ebb));
    const MEM_PROFILE_BIN_SCOPE collecting("words");
    start.arrive_and_wait();
    tide.arrive_and_wait();
    delete[] query;
    ebb.arrive_and_wait();
    for (std::thread& worker : workers)
        worker.join();
}

void build_postings() {
    const MEM_PROFILE_BIN_SCOPE building("postings", "index");
    char* postings = nullptr;
    for (unsigned long size = 600; size <= 9600; size *= 2)
        postings = table_grow_postings(postings, size);
    table_drop_postings(postings);
}

int tear_down(const SHARES& shares) {
    const MEM_PROFILE_BIN_SCOPE tearing_down("teardown");
    int words = 0;
    for (const SHARE& share : shares)
        words += table_drop_words(share.words);
    build_postings();
    return words;
}

} // namespace

int main() {
    mem_set_tbb_exe_string("word_index");
    SHARES shares;
    const int documents = parse(shares);
    build(shares, ask());
    const int words = tear_down(shares);
    std::printf("%d words in %d documents\n", words, documents);
    return 0;
}
