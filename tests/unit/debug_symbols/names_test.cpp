// Names: undecorating with its limits, short module names, and the choice among overlapping functions.
#include "helpers.h"
#include "vbx/platform/debug_symbols/demangle.h"
#include "vbx/platform/debug_symbols/interval_index.h"
#include "vbx/platform/debug_symbols/short_name.h"

#include <random>

namespace {

std::string undecorate(const std::string& name, std::size_t length = SYM_MAX_NAME + 1) {
    std::vector<char> out(length + 16, '#');
    sym_undecorate_name(name.c_str(), out.data(), length);
    for (std::size_t index = length; index < out.size(); ++index) {
        EXPECT_EQ(out[index], '#') << "written behind the buffer";
    }
    return length == 0 ? "" : out.data();
}

TEST(UNDECORATE, drops_the_return_type_and_leaves_undecorated_names_alone) {
    const std::pair<const char*, const char*> cases[] = {
        {"_ZNSt6vectorIiSaIiEE17_M_realloc_insertIJRKiEEEvN9__gnu_cxx17__normal_iteratorIPiS1_EEDpOT_",
         "std::vector<int, std::allocator<int> >::_M_realloc_insert<int "
         "const&>(__gnu_cxx::__normal_iterator<int*, "
         "std::vector<int, std::allocator<int> > >, int const&)"},
        {"_Z4pickIiEPFT_S0_Ei", "pick<int>(int)"},
        {"_ZNK1AcviEv", "A::operator int() const"},
        {"_ZN7subject6chooseEi.cold", "subject::choose(int) [clone .cold]"},
        {"_ZZ4mainENKUliE_clEi", "main::{lambda(int)#1}::operator()(int) const"},
        {"malloc", "malloc"},
        {"i", "i"}, // a decorated type, but a C function too
        {"std::vector<int>::size() const", "std::vector<int>::size() const"},
        {"_ZNotDecorated", "_ZNotDecorated"},
        {"", ""},
    };
    for (const auto& [decorated, plain] : cases) {
        EXPECT_EQ(undecorate(decorated), plain);
        EXPECT_EQ(undecorate(plain), plain) << "undecorating twice";
    }
    char out[64];
    sym_demangle_symbol("memcpy@@GLIBC_2.14", out, sizeof(out));
    EXPECT_STREQ(out, "memcpy");
    sym_demangle_symbol("_Z3fooi@V1", out, sizeof(out));
    EXPECT_STREQ(out, "foo(int)");
}

TEST(UNDECORATE, survives_hostile_names) {
    EXPECT_EQ(undecorate("_Z3fooi", 5), "foo(");
    EXPECT_EQ(undecorate("_Z3fooi", 1), "");
    EXPECT_EQ(undecorate("_Z3fooi", 0), "");
    // Deep nesting beyond the limit is left as it stands.
    const std::string deep = "_Z1f" + std::string(9996, 'P') + "i";
    EXPECT_EQ(undecorate(deep), deep.substr(0, SYM_MAX_NAME));
    EXPECT_LE(undecorate("_Z1f" + std::string(1000, 'P') + "i").size(), SYM_MAX_NAME);
    // Each parameter is a pair of the one before it: some 2^40 characters when written out.
    std::string doubling = "_Z1f1AIiiE";
    const char* digits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    doubling += "S_IS0_S0_E";
    for (int level = 0; level < 36; ++level) {
        doubling += std::string("S_IS") + digits[level] + "_S" + digits[level] + "_E";
    }
    const std::string expanded = undecorate(doubling);
    EXPECT_EQ(expanded.size(), SYM_MAX_NAME);
    EXPECT_TRUE(expanded.starts_with("f(A<int, int>"));
    std::mt19937 random(std::random_device{}());
    const auto seed = random();
    random.seed(seed);
    const std::string base =
        "_ZNSt6vectorIiSaIiEE17_M_realloc_insertIJRKiEEEvN9__gnu_cxx17__normal_iteratorIPiS1_EEDpOT_";
    for (int round = 0; round < 20000; ++round) {
        std::string name = base;
        for (int flips = 0; flips < 3; ++flips) {
            name[2 + random() % (name.size() - 2)] = static_cast<char>(33 + random() % 94);
        }
        ASSERT_LE(undecorate(name).size(), SYM_MAX_NAME) << "seed " << seed << ' ' << name;
    }
}

TEST(SHORT_NAMES, follow_the_rule) {
    const std::pair<const char*, const char*> cases[] = {
        {"/usr/lib/libtbb.so.12", "tbb"},
        {"libtbbmalloc.so.2", "tbbmalloc"},
        {"/usr/lib/libstdc++.so.6.0.30", "stdc++"},
        {"/x/_ctypes.cpython-311-x86_64-linux-gnu.so", "_ctypes.cpython-311-x86_64-linux-gnu"},
        {"/x/plugin.so", "plugin"},
        {"/lib64/ld-linux-x86-64.so.2", "ld-linux-x86-64"},
        {"linux-vdso.so.1", "linux-vdso"},
        {"/usr/bin/python3.11", "python3.11"},
        {"/opt/me/setup.exe", "setup"},
        {"/opt/me/libtool", "libtool"},
        {"/opt/me/lib.so", "lib"},
        {"", ""},
    };
    for (const auto& [path, short_name] : cases) {
        EXPECT_EQ(sym_short_module_name(path), short_name) << path;
    }
    for (const char* runtime : {"c", "stdc++", "gcc_s", "ld-linux-x86-64", "asan", "clang_rt.asan-x86_64"}) {
        EXPECT_TRUE(sym_is_runtime_module(runtime)) << runtime;
    }
    for (const char* other : {"cc", "tbb", "", "crypto", "stdc++x"}) {
        EXPECT_FALSE(sym_is_runtime_module(other)) << other;
    }
}

TEST(INTERVALS, innermost_answers_as_a_naive_search_does) {
    const auto seed = std::random_device{}();
    std::mt19937 random(seed);
    for (int round = 0; round < 300; ++round) {
        // Properly nested ranges: each lies in a randomly chosen one or beside all.
        struct RANGE {
            std::uint64_t start, end;
        };
        std::vector<RANGE> ranges{{0, 1000}};
        SYM_INTERVAL_INDEX index;
        index.add(0, 1000, 0);
        for (int count = static_cast<int>(random() % 40); count > 0; --count) {
            const std::uint64_t start = random() % 1000;
            const std::uint64_t end = start + random() % (1000 - start) + 1;
            const bool crosses = std::any_of(ranges.begin(), ranges.end(), [&](const RANGE& other) {
                const bool apart = end <= other.start || other.end <= start;
                const bool inside = other.start <= start && end <= other.end;
                const bool around = start <= other.start && other.end <= end;
                return !apart && !inside && !around;
            });
            if (!crosses) {
                index.add(start, end, static_cast<std::uint32_t>(ranges.size()));
                ranges.push_back({start, end});
            }
        }
        index.seal();
        for (std::uint64_t address = 0; address < 1010; ++address) {
            std::uint32_t expected = SYM_INTERVAL_INDEX::none;
            for (std::uint32_t at = 0; at < ranges.size(); ++at) {
                const RANGE& range = ranges[at];
                if (range.start <= address && address < range.end &&
                    (expected == SYM_INTERVAL_INDEX::none ||
                     range.end - range.start <= ranges[expected].end - ranges[expected].start)) {
                    expected = at;
                }
            }
            const auto* found = index.find(address);
            ASSERT_EQ(found == nullptr ? SYM_INTERVAL_INDEX::none : found->payload, expected)
                << "seed " << seed << " address " << address;
        }
    }
}

} // namespace
