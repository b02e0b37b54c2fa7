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

TEST(UNDECORATE, survives_hostile_names) {
    EXPECT_EQ(undecorate("_Z3fooi", 5), "foo(");
    EXPECT_EQ(undecorate("_Z3fooi", 1) + undecorate("_Z3fooi", 0), "");
    // As long as they are taken, and as deep as one can be.
    EXPECT_TRUE(
        undecorate("_ZNSt6vectorI4000" + std::string(4000, 'x') + "EC1Ev").starts_with("std::vector<xxx"));
    for (const std::string unit : {"P", "1AI", "Dp", "A1_", "M1A", "PFv", "F"}) {
        std::string nested = "_Z1f";
        while (nested.size() + unit.size() < 4090)
            nested += unit;
        EXPECT_LE(undecorate(nested + "i").size(), SYM_MAX_NAME);
    }
    // A copy of the templates for each reference: too many are left as they stand.
    const auto with_copies = [](int templates, int references) {
        std::string name = "_Z1fI";
        for (int count = 0; count < templates; ++count)
            name += "1AIiE";
        name += "Ev";
        for (int count = 0; count < references; ++count)
            name += "RT_";
        return undecorate(name);
    };
    EXPECT_TRUE(with_copies(400, 600).starts_with("_Z1fI1AIiE"));
    EXPECT_TRUE(with_copies(400, 60).starts_with("f<A<int>, A<int>"));
    // Nesting too deep for the stack is left as it stands.
    const std::string deep = "_Z1f" + std::string(9996, 'P') + "i";
    EXPECT_EQ(undecorate(deep), deep.substr(0, SYM_MAX_NAME));
    // Each parameter is a pair of the one before it: some 2^40 characters when written out.
    std::string doubling = "_Z1f1AIiiES_IS0_S0_E";
    for (const char digit : std::string("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"))
        doubling += std::string("S_IS") + digit + "_S" + digit + "_E";
    const std::string expanded = undecorate(doubling);
    EXPECT_EQ(expanded.size(), SYM_MAX_NAME);
    EXPECT_TRUE(expanded.starts_with("f(A<int, int>"));
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
