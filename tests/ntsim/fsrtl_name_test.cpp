// Wildcard matching of names: '*', '?', the three DOS wildcards, the empty-string rules and
// the IgnoreCase rule.
#include <ntifs.h>

#include <ntsim/sim/text.hpp>

#include <gtest/gtest.h>

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
