// stl_output on random formats. Half of them are put together from conversions whose text the C library's
// printf can be made to print, from a format and a list of its own: text, result, stored counts and the place
// of the list behind the call must agree. The other half are any characters, with arguments that are right
// for every conversion: no byte outside of them is touched, and the count is the growth of the string.

#include <vbx/mem.h>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <memory>
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

enum KIND { INTEGER, POINTER, DECIMAL, WHOLE, CHARACTER, WIDE, TEXT, COUNT, DROPPED, KINDS };

// By kinds: what the engine is given, and what printf prints the same text for.
constexpr const char* CONVERSIONS[KINDS] = {
    "d=d i=i hd=hd ld=ld lld=ld I64d=ld Ld=d wi=i hli=li u=u hu=hu lu=lu FI64u=lu o=o No=o ho=ho llo=lo x=x "
    "hx=hx lx=lx X=X I64X=lX",
    "p=.16lX .3lp=.16lX",
    "f=f e=f E=f lg=f LG=f hf=f",
    ".0f=.0f .e=.0f .0g=.1f .lG=.1f",
    "c=c hc=c hC=c",
    "lc=c wc=c C=c hlC=c",
    "s=s hs=s hS=s",
    "n=n hn=hn ln=n I64n=n hln=n",
    "y=y %=%% a=a A=A I32d=I32d lI.=I. .B= lB= .2h.5f=.5f 5.%=%%",
};

// A format for the engine with its arguments, and one for printf that gives the same text.
class AGREEING_FORMATS {
  public:
    AGREEING_FORMATS() {
        for (auto pieces = below(8); pieces > 0; --pieces) {
            add_to_both(some_of("abc .5dl\t\x80\xff", once_in(20) ? 1500 : 5));
            add(static_cast<KIND>(below(KINDS)));
        }
        if (once_in(8))
            m_format += one_of("% %5 %- %0. %#7.2 %h %l %.3I64");
        m_arguments.push_back(LAST_ARGUMENT);
    }

    void expect_agreement() {
        const std::string before(below(600), 'b');
        std::string text = before, expected(32768, '\0');
        std::va_list list, printf_list;
        start(list, m_arguments);
        start(printf_list, m_printf_arguments);
        const int result = stl_output(&text, m_format.c_str(), list);
        const int size =
            std::vsnprintf(expected.data(), expected.size(), m_printf_format.c_str(), printf_list);
        expected.resize(static_cast<std::size_t>(size));
        EXPECT_EQ(result, size);
        EXPECT_EQ(text, before + expected) << m_format << " and for printf " << m_printf_format;
        EXPECT_EQ(m_counts, m_printf_counts) << m_format;
        EXPECT_EQ(va_arg(list, unsigned long), LAST_ARGUMENT) << m_format;
    }

  private:
    static constexpr std::uint64_t LAST_ARGUMENT = 0x1234567;

    void add_to_both(const std::string& text) {
        m_format += text;
        m_printf_format += text;
    }
    template <class VALUE>
    void add_argument(VALUE value) {
        m_arguments.push_back(std::bit_cast<std::uint64_t>(value));
        m_printf_arguments.push_back(std::bit_cast<std::uint64_t>(value));
    }
    void add_number(std::uint64_t largest) {
        if (!once_in(4))
            return add_to_both(std::to_string(1 + below(largest)));
        add_to_both("*");
        add_argument(below(2 * largest) - largest);
    }

    void add(KIND kind) {
        const std::string pair = one_of(CONVERSIONS[kind]);
        const auto middle = pair.find('=');
        if (kind == DROPPED) {
            m_format += "%" + some_of("-+ #0", 2) + pair.substr(0, middle);
            m_printf_format += pair.substr(middle + 1);
            return add_to_both("_"); // digits behind an 'I' would belong to it
        }
        const std::string flags = some_of(kind <= WHOLE ? "-+ #0" : "-+ #", 3);
        m_format += "%" + flags;
        // The engine always prints the point of a double.
        m_printf_format += (kind == DECIMAL || kind == WHOLE ? "%#" : "%") + flags;
        if (once_in(2))
            add_number(once_in(50) ? 1000 : 30);
        if (kind == DECIMAL && once_in(2))
            add_to_both("." + std::to_string(1 + below(150)));
        if (kind == INTEGER && once_in(2)) {
            add_to_both(".");
            if (!once_in(5))
                add_number(once_in(20) ? 500 : 40);
        }
        add_argument_of(kind);
        m_format += pair.substr(0, middle);
        m_printf_format += pair.substr(middle + 1);
    }

    void add_argument_of(KIND kind) {
        const std::uint64_t word = once_in(6) ? below(3) : random_number() >> below(64);
        if (kind == DECIMAL || kind == WHOLE) {
            const double with_ties = static_cast<double>(below(2'000'000)) / 1000 - 1000;
            const double any = std::bit_cast<double>(word);
            add_argument(once_in(3) && any - any == 0 ? any : once_in(20) ? -0.0 : with_ties);
        } else if (kind == TEXT) {
            add_text(some_of("abc \xff", once_in(10) ? 1500 : 20));
        } else if (kind == COUNT) {
            m_arguments.push_back(std::bit_cast<std::uint64_t>(&m_counts.emplace_back(0x55555555)));
            m_printf_arguments.push_back(
                std::bit_cast<std::uint64_t>(&m_printf_counts.emplace_back(0x55555555)));
        } else {
            add_argument(kind == WIDE ? word & 127 : word);
        }
    }

    void add_text(std::string text) {
        const auto precision = below(text.size() + 10);
        if (precision < text.size() + 3)
            add_to_both("." + std::to_string(precision));
        text += '\0';
        m_printf_arguments.push_back(store(text));
        text.resize(std::min(text.size(), precision));
        m_arguments.push_back(store(text));
    }
    // In a block of just the characters that may be read.
    std::uint64_t store(const std::string& text) {
        m_texts.emplace_back(new char[text.size()]);
        return std::bit_cast<std::uint64_t>(std::memcpy(m_texts.back().get(), text.data(), text.size()));
    }

    std::string m_format, m_printf_format;
    ARGUMENTS m_arguments, m_printf_arguments;
    std::deque<int> m_counts, m_printf_counts;
    std::deque<std::unique_ptr<char[]>> m_texts;
};

// Can be read as a string, narrow or wide, as a counted string, and written to as a count; its address is a
// bearable width. 0 where the system keeps such addresses to itself.
std::uint64_t map_universal_argument() {
    constexpr std::uint64_t ADDRESS = 0x10000, SIZE = 0x20000, CHARACTERS = ADDRESS + SIZE / 2;
    auto* const block =
        static_cast<std::uint64_t*>(mmap(reinterpret_cast<void*>(ADDRESS), SIZE, PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0));
    if (block == MAP_FAILED)
        return 0;
    block[0] = 100;
    block[1] = CHARACTERS;
    std::memset(reinterpret_cast<void*>(CHARACTERS), 'u', SIZE / 2);
    return ADDRESS;
}

void expect_survival_of_any_format(std::uint64_t universal_argument) {
    const std::string format =
        some_of("%%%%%%%%%%%%%%%%-+ #01.*FILNhlwBCEGSXZcdefginopsux64ayz\x01\x7f\x80\xff", 60);
    ARGUMENTS arguments(60, universal_argument);
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
    static const std::uint64_t universal_argument = map_universal_argument();
    for (std::uint64_t seed = first; seed < first + FORMATS && !HasFailure(); ++seed) {
        random_number.seed(seed);
        if (universal_argument != 0 && once_in(2))
            expect_survival_of_any_format(universal_argument);
        else
            AGREEING_FORMATS().expect_agreement();
        if (HasFailure())
            ADD_FAILURE() << "OUTPUT_FUZZ_SEED=" << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Run, OUTPUT_FUZZ, testing::Range(0, RUNS));

} // namespace
