// Names: undecorating with its limits, short module names, and the choice among overlapping functions.
#include "helpers.h"
#include "vbx/platform/debug_symbols/demangle.h"
#include "vbx/platform/debug_symbols/interval_index.h"
#include "vbx/platform/debug_symbols/short_name.h"

#include <algorithm>
#include <random>

namespace {

std::string undecorate(const std::string& name, std::size_t length = SYM_MAX_NAME + 1) {
    std::vector<char> out(length + 16, '#');
    sym_undecorate_name(name.c_str(), out.data(), length);
    EXPECT_EQ(std::count(out.end() - 16, out.end(), '#'), 16) << "written behind the buffer";
    return length == 0 ? "" : out.data();
}

const std::string LONG_NAME =
    "_ZNSt6vectorIiSaIiEE17_M_realloc_insertIJRKiEEEvN9__gnu_cxx17__normal_iteratorIPiS1_EEDpOT_";

TEST(UNDECORATE, drops_the_return_type_and_leaves_undecorated_names_alone) {
    const std::pair<std::string, const char*> cases[] = {
        {LONG_NAME,
         "std::vector<int, std::allocator<int> >::_M_realloc_insert<int const&>("
         "__gnu_cxx::__normal_iterator<int*, std::vector<int, std::allocator<int> > >, int const&)"},
        {"_Z4pickIiEPFT_S0_Ei", "pick<int>(int)"},
        {"_ZNK1AcviEv", "A::operator int() const"},
        {"_ZN7subject6chooseEi.cold", "subject::choose(int) [clone .cold]"},
        {"i", "i"}, // a decorated type, but a C function too
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
}

std::string repeat(const std::string& unit, std::size_t length) {
    std::string text;
    while (text.size() + unit.size() <= length)
        text += unit;
    return text;
}

TEST(UNDECORATE, survives_hostile_names) {
    EXPECT_EQ(undecorate("_Z3fooi", 5), "foo(");
    EXPECT_EQ(undecorate("_Z3fooi", 1) + undecorate("_Z3fooi", 0), "");
    // As deep as one can be.
    for (const std::string unit : {"P", "1AI", "Dp", "A1_", "M1A", "PFv", "F"})
        EXPECT_LE(undecorate("_Z1f" + repeat(unit, 4085) + "i").size(), SYM_MAX_NAME);
    // Each parameter is a pair of the one before it: some 2^40 characters when written out.
    std::string doubling = "_Z1f1AIiiES_IS0_S0_E";
    for (const char digit : std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"))
        doubling += std::string("S_IS") + digit + "_S" + digit + "_E";
    EXPECT_EQ(undecorate(doubling).size(), SYM_MAX_NAME);
    const std::string templates = "_Z1fI" + repeat("1AIiE", 2000) + "Ev",
                      deep = "_Z1f" + repeat("P", 9996) + "i";
    const std::pair<std::string, std::string> beginnings[] = {
        {"_ZNSt6vectorI4000" + repeat("x", 4000) + "EC1Ev", "std::vector<xxx"}, // as long as they are taken
        {doubling, "f(A<int, int>"},
        {templates + repeat("RT_", 180), "f<A<int>, A<int>"},
        {templates + repeat("RT_", 1800),
         "_Z1fI1AIiE"},                       // a copy of the templates for each reference: too many
        {deep, deep.substr(0, SYM_MAX_NAME)}, // too deep for the stack
    };
    for (const auto& [name, beginning] : beginnings)
        EXPECT_TRUE(undecorate(name).starts_with(beginning)) << beginning;
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    for (int round = 0; round < 20000; ++round) {
        std::string name = LONG_NAME;
        for (int flips = 0; flips < 3; ++flips)
            name[2 + random() % (name.size() - 2)] = static_cast<char>(33 + random() % 94);
        ASSERT_LE(undecorate(name).size(), SYM_MAX_NAME) << "seed " << seed << ' ' << name;
    }
}

TEST(SHORT_NAMES, follow_the_rule) {
    const std::pair<const char*, const char*> cases[] = {
        {"/usr/lib/libtbb.so.12", "tbb"},
        {"/usr/lib/libstdc++.so.6.0.30", "stdc++"},
        {"/x/_ctypes.cpython-311-x86_64-linux-gnu.so", "_ctypes.cpython-311-x86_64-linux-gnu"},
        {"linux-vdso.so.1", "linux-vdso"},
        {"/usr/bin/python3.11", "python3.11"},
        {"/opt/me/setup.exe", "setup"},
        {"/opt/me/libtool", "libtool"},
        {"/opt/me/lib.so", "lib"},
        {"/opt/me/my.solver.v2", "my.solver.v2"},
        {"/opt/me/libmy.solver.so.3", "my.solver"},
    };
    for (const auto& [path, short_name] : cases)
        EXPECT_EQ(sym_short_module_name(path), short_name) << path;
    EXPECT_TRUE(sym_is_runtime_module("stdc++") && sym_is_runtime_module("clang_rt.asan-x86_64"));
    EXPECT_FALSE(sym_is_runtime_module("cc") || sym_is_runtime_module("") ||
                 sym_is_runtime_module("stdc++x"));
}

TEST(INTERVALS, innermost_answers_and_of_equal_ones_the_last) {
    const std::pair<std::uint64_t, std::uint64_t> ranges[] = {{9, 9}, {14, 16}, {5, 8}, {2, 12}, {5, 10},
                                                              {5, 6}, {5, 8},   {1, 2}, {13, 17}};
    SYM_INTERVAL_INDEX index;
    for (std::uint32_t payload = 0; payload < std::size(ranges); ++payload)
        index.add(ranges[payload].first, ranges[payload].second, payload);
    index.seal();
    std::string owners;
    for (std::uint64_t address = 0; address < 19; ++address) {
        const auto* const found = index.find(address);
        owners += found == nullptr ? "-" : std::to_string(found->payload);
    }
    EXPECT_EQ(owners, "-73335664433-8118--");
}

} // namespace
