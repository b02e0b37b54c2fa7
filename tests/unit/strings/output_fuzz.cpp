// stl_output on random formats. Half of them are put together from conversions whose text the C library's
// printf can be made to print: text, result and the place of the list behind the call must agree. The other
// half are any characters, with arguments that are right for every conversion: no byte outside of them is
// touched, and the count is the growth of the string.

#include <vbx/mem.h>

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <sstream>
#include <vector>

namespace {

std::mt19937_64 random_number;

std::uint64_t below(std::uint64_t end) {
    return random_number() % end;
}
bool once_in(unsigned times) {
    return below(times) == 0;
}
std::string one_of(const char* words) {
    std::istringstream stream(words);
    const std::vector<std::string> all{std::istream_iterator<std::string>(stream), {}};
    return all[below(all.size())];
}
std::string some_of(const std::string& characters, std::size_t most) {
    std::string result(below(most + 1), '\0');
    for (char& character : result)
        character = characters[below(characters.size())];
    return result;
}

using ARGUMENTS = std::vector<std::uint64_t>;

// A list as it is on this platform when all registers for arguments have been used up.
void start(std::va_list list, ARGUMENTS& arguments) {
    const struct {
        unsigned integer_offset, double_offset;
        void *in_memory, *in_registers;
    } layout{6 * 8, 6 * 8 + 8 * 16, arguments.data(), nullptr};
    std::memcpy(list, &layout, sizeof layout);
}

enum KIND { INTEGER, DECIMAL, TEXT, CHARACTER, WIDE, KINDS };

// By kinds: what the engine is given, and what printf prints the same text for.
constexpr const char* CONVERSIONS[KINDS] = {
    "d=d i=i hd=hd ld=ld lld=ld I64d=ld Ld=d wi=i hli=li u=u hu=hu lu=lu FI64u=lu o=o No=o ho=ho llo=lo x=x "
    "hx=hx lx=lx X=X I64X=lX",
    "f=f e=f E=f lf=f hf=f",
    "s=s hs=s hS=s",
    "c=c hc=c hC=c",
    "lc=c wc=c C=c hlC=c",
};

std::uint64_t argument_of(KIND kind) {
    static const std::string texts[] = {"", "abc \xff", std::string(1500, 't')};
    const std::uint64_t word = once_in(6) ? below(3) : random_number() >> below(64);
    if (kind == TEXT)
        return std::bit_cast<std::uint64_t>(texts[below(std::size(texts))].c_str());
    if (kind != DECIMAL)
        return kind == WIDE ? word & 127 : word;
    const double with_ties = static_cast<double>(below(2'000'000)) / 1000 - 1000;
    const double any = std::bit_cast<double>(word);
    return std::bit_cast<std::uint64_t>(once_in(3) && std::isfinite(any) ? any
                                        : once_in(20)                    ? -0.0
                                                                         : with_ties);
}

// A width or a precision, written out or taken from the arguments.
std::string number(std::uint64_t largest, ARGUMENTS& arguments) {
    if (!once_in(4))
        return std::to_string(1 + below(largest));
    arguments.push_back(below(2 * largest) - largest);
    return "*";
}

void expect_agreement_with_printf() {
    std::string format, printf_format;
    ARGUMENTS arguments;
    const auto add = [&](const std::string& own, const std::string& of_printf) {
        format += own;
        printf_format += of_printf;
    };
    for (auto pieces = below(8); pieces > 0; --pieces) {
        const auto kind = static_cast<KIND>(below(KINDS));
        std::string piece = some_of("abc .5dl\t\x80\xff", once_in(20) ? 1500 : 5) + "%";
        // The engine always prints the point of a double.
        add(piece, piece + (kind == DECIMAL ? "#" : ""));
        piece = some_of(kind <= DECIMAL ? "-+ #0" : "-+ #", 3);
        if (once_in(2))
            piece += number(once_in(50) ? 1000 : 30, arguments);
        if (kind <= TEXT && once_in(2))
            piece += '.' + (once_in(9) ? "" : number(kind == INTEGER && once_in(20) ? 500 : 150, arguments));
        add(piece, piece);
        const std::string pair = one_of(CONVERSIONS[kind]);
        add(pair.substr(0, pair.find('=')), pair.substr(pair.find('=') + 1));
        arguments.push_back(argument_of(kind));
    }
    constexpr std::uint64_t LAST_ARGUMENT = 0x1234567;
    arguments.push_back(LAST_ARGUMENT);

    const std::string before(below(600), 'b');
    std::string text = before, expected(32768, '\0');
    std::va_list list, printf_list;
    start(list, arguments);
    start(printf_list, arguments);
    const int result = stl_output(&text, format.c_str(), list);
    const int size = std::vsnprintf(expected.data(), expected.size(), printf_format.c_str(), printf_list);
    expected.resize(static_cast<std::size_t>(size));
    EXPECT_EQ(result, size);
    EXPECT_EQ(text, before + expected) << format << " and for printf " << printf_format;
    EXPECT_EQ(va_arg(list, unsigned long), LAST_ARGUMENT) << format;
}

void expect_survival_of_any_format() {
    // Can be read as a string, narrow or wide, as a counted string, and written to as a count. No width: an
    // address is a very large one.
    static const std::vector<char> characters(65536, 'u');
    std::uint64_t universal_argument[] = {100, std::bit_cast<std::uint64_t>(characters.data())};
    ARGUMENTS arguments(60, std::bit_cast<std::uint64_t>(&universal_argument));
    const std::string format =
        some_of("%%%%%%%%%%%%%%%%-+ #01.FILNhlwBCEGSXZcdefginopsux64ayz\x01\x7f\x80\xff", 60);
    std::va_list list;
    start(list, arguments);
    std::string text = "before";
    const int result = stl_output(&text, format.c_str(), list);
    EXPECT_TRUE(text.starts_with("before"));
    EXPECT_EQ(static_cast<int>(text.size()), 6 + result) << format;
}

class OUTPUT_FUZZ : public testing::TestWithParam<int> {};

// Runs of their own, so that a busy machine ends each in time. OUTPUT_FUZZ_SEED repeats a failed one.
TEST_P(OUTPUT_FUZZ, AgreesWithPrintf) {
    const char* const given = std::getenv("OUTPUT_FUZZ_SEED");
    const std::uint64_t first = given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device()();
    for (std::uint64_t seed = first; seed < first + FORMATS && !HasFailure(); ++seed) {
        random_number.seed(seed);
        once_in(2) ? expect_survival_of_any_format() : expect_agreement_with_printf();
        if (HasFailure())
            ADD_FAILURE() << "OUTPUT_FUZZ_SEED=" << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Run, OUTPUT_FUZZ, testing::Range(0, RUNS));

} // namespace
