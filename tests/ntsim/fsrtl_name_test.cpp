// Wildcard matching of names: '*', '?', the three DOS wildcards, the empty-string rules and
// the IgnoreCase rule.
#include <ntifs.h>

#include <ntsim/sim/text.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using ntsim::UnicodeStringHolder;

namespace {

bool Matches(const char* expression, const char* name, bool ignoreCase = false, PWCH upcaseTable = nullptr)
{
    UnicodeStringHolder e(expression), n(name);
    return FsRtlIsNameInExpression(e.get(), n.get(), ignoreCase, upcaseTable) != FALSE;
}

}  // namespace

TEST(FsRtlIsNameInExpression, EmptyNameMatchesOnlyAnEmptyExpression)
{
    EXPECT_TRUE(Matches("", ""));
    EXPECT_FALSE(Matches("*", ""));
    EXPECT_FALSE(Matches("<", ""));
    EXPECT_FALSE(Matches("", "a"));
}

TEST(FsRtlIsNameInExpression, StarMatchesAnyRunAndQuestionMarkExactlyOne)
{
    EXPECT_TRUE(Matches("*", "a"));
    EXPECT_TRUE(Matches("a*", "a"));
    EXPECT_TRUE(Matches("*.txt", "a.b.txt"));
    EXPECT_FALSE(Matches("*.txt", "a.txt.bak"));
    EXPECT_TRUE(Matches("*a*b", "xxaxxb"));
    EXPECT_FALSE(Matches("*a*b", "xxbxxa"));
    EXPECT_TRUE(Matches("a?c", "abc"));
    EXPECT_FALSE(Matches("a?c", "ac"));
    EXPECT_FALSE(Matches("a?", "a"));
    EXPECT_FALSE(Matches("abc", "abcd"));
}

TEST(FsRtlIsNameInExpression, DosStarStopsBeforeTheLastDot)
{
    EXPECT_TRUE(Matches("<", "readme"));
    EXPECT_FALSE(Matches("<", "readme.txt"));      // may not consume the last dot
    EXPECT_TRUE(Matches("<.txt", "a.b.txt"));      // earlier dots are fine
    EXPECT_FALSE(Matches("<.txt", "a.txt.txt2"));
    EXPECT_TRUE(Matches("a<", "a"));               // an empty run
    EXPECT_FALSE(Matches("<", ".profile"));
}

TEST(FsRtlIsNameInExpression, DosQmMatchesOneCharacterOrNothingAtADotOrTheEnd)
{
    EXPECT_TRUE(Matches("a>", "ab"));
    EXPECT_TRUE(Matches("a>", "a"));         // nothing at the end
    EXPECT_TRUE(Matches("a>>>", "ab"));      // the run of DOS_QMs shrinks at the end
    EXPECT_FALSE(Matches("a>", "abc"));
    EXPECT_TRUE(Matches("ab>.c", "ab.c"));   // nothing at the dot
    EXPECT_TRUE(Matches("ab>.c", "abx.c"));
    EXPECT_FALSE(Matches("ab>.c", "abxy.c"));
    EXPECT_FALSE(Matches("a>b", "a.b"));     // it does not consume the dot itself
    EXPECT_TRUE(Matches(">>>>>>>>\">>>", "file.c"));  // the 8.3 form of "????????.???"
    EXPECT_TRUE(Matches(">>>>>>>>\">>>", "file"));
}

TEST(FsRtlIsNameInExpression, DosDotMatchesADotOrNothingAtTheEnd)
{
    EXPECT_TRUE(Matches("abc\"*", "abc"));
    EXPECT_TRUE(Matches("abc\"*", "abc.txt"));
    EXPECT_FALSE(Matches("abc\"*", "abcd"));
    EXPECT_TRUE(Matches("a\"b", "a.b"));
    EXPECT_FALSE(Matches("a\"b", "ab"));     // nothing is allowed only at the end
}

TEST(FsRtlIsNameInExpression, IgnoreCaseUpcasesOnlyTheName)
{
    EXPECT_TRUE(Matches("*.TXT", "a.txt", true));
    EXPECT_FALSE(Matches("*.TXT", "a.txt", false));
    // A lower-case expression never matches with IgnoreCase: the name is upcased, it is not.
    EXPECT_FALSE(Matches("*.txt", "a.txt", true));
    EXPECT_FALSE(Matches("\\Device\\*\\*", "\\device\\HarddiskVolume2\\Data"));
    EXPECT_TRUE(Matches("\xC3\x89T\xC3\x89", "\xC3\xA9t\xC3\xA9", true));

    // A given upcase table replaces the system's mapping.
    std::vector<WCHAR> table(0x10000);
    for (size_t i = 0; i < table.size(); ++i) {
        table[i] = WCHAR(i);
    }
    table[L'a'] = L'Q';
    EXPECT_TRUE(Matches("Q", "a", true, table.data()));
    EXPECT_FALSE(Matches("A", "a", true, table.data()));
}

TEST(FsRtlIsNameInExpression, ManyStarsOnANearMissStayFast)
{
    // Backtracking would try every way of placing the stars: far too many to finish.
    std::string expression;
    for (int i = 0; i < 40; ++i) {
        expression += "*a";
    }
    expression += "*b";
    const std::string name(4000, 'a');
    EXPECT_FALSE(Matches(expression.c_str(), name.c_str()));
    EXPECT_TRUE(Matches(expression.c_str(), (name + "b").c_str()));
}

TEST(FsRtlIsNameInExpression, NamesOfSeveralDotsAndEmptyExtensions)
{
    // DOS_STAR may take every dot but the name's last one.
    EXPECT_TRUE(Matches("<.<", "a.b.c.d"));  // "a.b.c", the last dot, "d"
    EXPECT_TRUE(Matches("<.c", "a.b.c"));
    EXPECT_FALSE(Matches("<.b", "a.b.c"));
    EXPECT_FALSE(Matches("<", "a."));
    EXPECT_FALSE(Matches("<<", "a.b.c"));     // nor can two of them between them
    EXPECT_TRUE(Matches("><.c", "x.y.c"));   // ".y" holds a dot, but not the last one
    EXPECT_TRUE(Matches("*", "a.b."));

    // The translation of "*.": names with no extension, an empty extension being none.
    EXPECT_TRUE(Matches("<\"", "readme"));
    EXPECT_TRUE(Matches("<\"", "readme."));
    EXPECT_TRUE(Matches("<\"", "a.b."));
    EXPECT_FALSE(Matches("<\"", "readme.txt"));
    EXPECT_TRUE(Matches("<.", "a."));
    EXPECT_FALSE(Matches("<.", "a"));         // a plain '.' is never optional

    // DOS_QM stops at each dot and at the end, whatever the run of DOS_QMs still holds.
    EXPECT_TRUE(Matches("a>.txt", "a.txt"));  // the translation of "a?.txt" lists a.txt
    EXPECT_TRUE(Matches("a>>.t>>", "ab.t"));
    EXPECT_FALSE(Matches("a>>", "a.b"));
    EXPECT_FALSE(Matches("a>", "a."));
    EXPECT_TRUE(Matches("a>\"", "a."));
    EXPECT_TRUE(Matches(">\">", "."));       // nothing, the dot, nothing
    EXPECT_FALSE(Matches(">", "."));
    EXPECT_TRUE(Matches(">\"<.c", "x.y.c"));

    // DOS_DOT is a dot, or nothing once the name has ended; it never skips a dot.
    EXPECT_TRUE(Matches("a\"\"", "a"));
    EXPECT_TRUE(Matches("a\"\"", "a."));
    EXPECT_TRUE(Matches("a\"\"", "a.."));
    EXPECT_FALSE(Matches("a\"\"", "a..."));
    EXPECT_FALSE(Matches("a\"c", "ac"));
}

TEST(FsRtlIsNameInExpression, ExpressionsEndingInWildcards)
{
    struct Case {
        const char* expression;
        const char* name;
        bool matches;
    };
    const Case cases[] = {
        {"a*", "a.b.c", true},   {"a?", "a.", true},      {"a?", "a", false},      {"a<", "a.b", false},
        {"a<", "ab", true},      {"a<", "a", true},       {"a>", "a.", false},     {"a>", "ab", true},
        {"a\"", "a", true},      {"a\"", "a.", true},     {"a\"", "ab", false},    {"a.*", "a.", true},
        {"a.<", "a.", true},     {"a.<", "a.b.c", false}, {"a.*", "a.b.c", true},  {"*<", "a.b", true},
        {"<*", "a.b", true},     {"<?", "a.", true},      {"<>", "a.", false},     {"<\"*", "a.b", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Matches(c.expression, c.name), c.matches) << c.expression << " / " << c.name;
    }
}

// The documented meaning of each wildcard, written as plain backtracking over the name: the
// automaton must agree with it on every pair of short names and expressions.
namespace {

bool MatchesByDefinition(const std::string& e, size_t i, const std::string& n, size_t j, size_t lastDot)
{
    if (i == e.size()) {
        return j == n.size();
    }
    const bool atEnd = j == n.size();
    const bool atDot = !atEnd && n[j] == '.';
    switch (e[i]) {
    case '*':
        for (size_t k = j; k <= n.size(); ++k) {
            if (MatchesByDefinition(e, i + 1, n, k, lastDot)) {
                return true;
            }
        }
        return false;
    case '<':
        for (size_t k = j; k <= n.size(); ++k) {
            if (k > j && k - 1 == lastDot) {
                return false;  // the run would hold the name's last dot
            }
            if (MatchesByDefinition(e, i + 1, n, k, lastDot)) {
                return true;
            }
        }
        return false;
    case '?':
        return !atEnd && MatchesByDefinition(e, i + 1, n, j + 1, lastDot);
    case '>':
        if (atEnd || atDot) {
            return MatchesByDefinition(e, i + 1, n, j, lastDot);
        }
        return MatchesByDefinition(e, i + 1, n, j + 1, lastDot);
    case '"':
        if (atEnd) {
            return MatchesByDefinition(e, i + 1, n, j, lastDot);
        }
        return atDot && MatchesByDefinition(e, i + 1, n, j + 1, lastDot);
    default:
        return !atEnd && n[j] == e[i] && MatchesByDefinition(e, i + 1, n, j + 1, lastDot);
    }
}

void EachString(const std::string& alphabet, size_t maxLength, const std::function<void(const std::string&)>& visit)
{
    std::function<void(std::string)> grow = [&](std::string s) {
        visit(s);
        if (s.size() < maxLength) {
            for (char c : alphabet) {
                grow(s + c);
            }
        }
    };
    grow("");
}

}  // namespace

TEST(FsRtlIsNameInExpression, AgreesWithTheWildcardsDefinitionsOnEveryShortName)
{
    std::vector<std::string> names;
    EachString("a.", 6, [&](const std::string& s) { names.push_back(s); });
    size_t compared = 0;
    EachString("a.*?<>\"", 4, [&](const std::string& expression) {
        if (expression.empty()) {
            return;
        }
        for (const std::string& name : names) {
            if (name.empty()) {
                continue;
            }
            const size_t dot = name.rfind('.');
            const bool expected =
                MatchesByDefinition(expression, 0, name, 0, dot == std::string::npos ? name.size() : dot);
            ASSERT_EQ(Matches(expression.c_str(), name.c_str()), expected) << expression << " / " << name;
            ++compared;
        }
    });
    EXPECT_EQ(compared, 2800u * 126u);
}

TEST(FsRtlDoesNameContainWildCards, FindsEachOfTheFiveWildcards)
{
    for (const char* name : {"a*", "a?", "a<", "a>", "a\""}) {
        UnicodeStringHolder n(name);
        EXPECT_TRUE(FsRtlDoesNameContainWildCards(n.get())) << name;
    }
    UnicodeStringHolder plain("\\dir\\file.txt");
    EXPECT_FALSE(FsRtlDoesNameContainWildCards(plain.get()));
    // Only the first Length bytes count.
    UnicodeStringHolder tail(u"ab*", 6);
    tail->Length = 4;
    EXPECT_FALSE(FsRtlDoesNameContainWildCards(tail.get()));
}
