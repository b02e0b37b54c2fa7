// What stl_output prints where it goes its own way, and the replacing and the changing of whole strings.
// Where it prints what printf prints, output_fuzz compares them.
#include <vbx/mem.h>

#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <limits>

namespace {

// The list is a parameter here, as in a host's own printing function.
int append_list(std::string* out, const char* format, std::va_list args) {
    return stl_output(out, format, args);
}

std::string output(const char* format, ...) {
    std::string text = "abc";
    std::va_list args;
    va_start(args, format);
    const int count = append_list(&text, format, args);
    va_end(args);
    EXPECT_EQ(text.substr(0, 3), "abc");
    EXPECT_EQ(static_cast<int>(text.size()), 3 + count);
    return text.substr(3);
}

TEST(OUTPUT_TEST, PrintsWhatIsItsOwn) {
    constexpr double INF = std::numeric_limits<double>::infinity();
    const char* const no_text = nullptr;
    const struct {
        short byte_length;
        const void* characters;
    } counted = {6, "abcdefgh"}, wide = {6, u"abcdefgh"}, empty = {6, nullptr}, negative = {-2, "abc"};
    const std::pair<std::string, std::string> cases[] = {
        {output("%.0f|%.0g|%.0f|%.1f", 3.7, 2.5, 0.5, -2.25), "4.|2.5|0.|-2.2"}, // ties go to the even digit
        {output("%f %+f %7f %07f", INF, INF, -INF, std::nan("")), "inf +inf    -inf 0000nan"},
        {output("%.600f", 1.5), "1.5" + std::string(508, '0')},
        {output("%.1500f", 1.5), "1.5" + std::string(508, '0')},
        {output("%.0f %I6x %I65d%n", INF, no_text), "inf I6x I65d"},
        {output("%.520f", -1.5), "-1.5" + std::string(507, '0')},
        {output("%s|%.2s|%S|%Z|%Z", no_text, no_text, no_text, no_text, &empty),
         "(null)|(n|(null)|(null)|(null)"},
        {output("%.1Z|%8wZ|%3Z|", &counted, &wide, &negative), "abcdef|     abc|   |"},
        {output("%.e|%.lG|%LG|%g", 2.5, 2.25, 1., .5), "2.|2.2|1.000000|0.500000"},
        {output("%05s|%5B|%.B|%lB|%d", "ab", 1), "000ab||||1"},
        {output("%p|%#.3p|%018p", 0xABCL, 0xABCL, 0L),
         "0000000000000ABC|0X0000000000000ABC|  0000000000000000"},
        {output("%y %#% %a %-A %+I32d %lI. %.2h.5f %5.%%d", 7), "y % a A I32d I. .5f %7"},
        {output("%.600d|%#.600o", 1, 8), std::string(499, '0') + "1|" + std::string(498, '0') + "10"},
        {output("%.99999999999s|%.*d|%p", "text", INT_MIN, 0, nullptr), "text|0|0000000000000000"},
        // More of either kind than registers hold, in turns, and a wrong kind would show.
        {output("%d%f%d%.1f%d%.1f%d%.1f%d%.1f%d%.1f%d%.1f%d%.1f%d%.1f%d%.1f", 1, .5, 2, .5, 3, .5, 4, .5, 5,
                .5, 6, .5, 7, .5, 8, .5, 9, .5, 10, .5),
         "10.50000020.530.540.550.560.570.580.590.5100.5"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(text, expected);
    for (const char* const unfinished : {"%", "%5", "%-", "%0.", "%#7.2", "%h", "%l", "%.3I64"})
        EXPECT_EQ(output(unfinished), "");
    const std::vector<char> endless = {'a', 'b', 'c'}; // for the sanitizer
    EXPECT_EQ(output("%.3s|%.2hS", endless.data(), endless.data()), "abc|ab");
    EXPECT_EQ(output(nullptr), "");
    EXPECT_EQ(stl_output(nullptr, "x", nullptr), 0);
}

TEST(OUTPUT_TEST, StoresCountsOfIntSizeAtMost) {
    const std::pair<const char*, int> cases[] = {
        {"ab%n", 2}, {"ab%ln", 2}, {"%600dab%I64n", 602}, {"ab%hln", 2}, {"ab%hn", -65534}};
    for (const auto& [format, expected] : cases) {
        int stored[] = {-1, -1, -1};
        output(format, &stored[1], &stored[1]);
        EXPECT_EQ(stored[1], expected) << format;
        EXPECT_EQ(stored[0] & stored[2], -1) << format;
    }
}

// Wide characters are those of the locale; a width counts them and not their bytes.
TEST(OUTPUT_TEST, EncodesWideCharacters) {
    EXPECT_EQ(output("%5lc|%ls|%.2ws|", u'\u00e9', u"a\u20acb", u"abc"), "|a|ab|");
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    EXPECT_EQ(output("%3lc|%-4S|%.2ls|", u'\u00e9', u"a\u20acb", u"\u20ac\u20ac\u20ac"), "  é|a€b |€€|");
    // A pair counts as its two halves; half of one is nothing.
    EXPECT_EQ(output("%4ls|%4lc|%3ls|", u"\U0001F600", u'\xD83D', u"x\xD83Dx"), "  \U0001F600||x|");
    std::setlocale(LC_CTYPE, "C");
}

TEST(STRINGS_TEST, FormattedTextReplacesTheStringOrLeavesIt) {
    std::string text = "abc";
    for (const int length : {0, 1, 8191, 8192, 8193, 10000}) {
        stl_sprintf(&text, "%*d", length, 7);
        EXPECT_EQ(text, length == 0 ? "7" : std::string(static_cast<std::size_t>(length - 1), ' ') + "7");
    }
    stl_sprintf(&text, "<%s>", text.c_str());
    EXPECT_EQ(text, "<" + std::string(9999, ' ') + "7>");
    const std::string kept = text;
    stl_sprintf(&text, "%ls", L"\u20ac"); // none of the C locale
    stl_sprintf(&text, nullptr);
    stl_sprintf(nullptr, "%d", 1);
    EXPECT_EQ(text, kept);
}

TEST(STRINGS_TEST, CaseOfAsciiLettersChanges) {
    std::string text("@AZ[`az{\xC4\xE4\0Q", 12);
    EXPECT_EQ(&stl_tolower(text), &text);
    EXPECT_EQ(text, std::string("@az[`az{\xC4\xE4\0q", 12));
    EXPECT_EQ(stl_toupper(text), std::string("@AZ[`AZ{\xC4\xE4\0Q", 12));
}

} // namespace
