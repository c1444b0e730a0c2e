// Matching of names against wildcard expressions.
//
// FsRtlIsNameInExpression runs the expression as a non-deterministic automaton over the
// name, one name character at a time, instead of backtracking (which is exponential in the
// number of stars for names that almost match). The states are the positions 0..m in the
// expression of m characters; position m accepts. Before each name character (and once more
// at the end of the name) the state set is closed under the moves that consume nothing,
// which go from a position to the next one:
//   '*' and DOS_STAR  always;
//   DOS_QM            when the next name character is a '.' or the name has ended;
//   DOS_DOT           when the name has ended.
// Then every state moves on the name character c:
//   '*'      stays (consumes c);
//   DOS_STAR stays, unless c is the last '.' of the name, which it may not consume;
//   '?'      to the next position;
//   DOS_QM   to the next position when c is not a '.';
//   DOS_DOT  to the next position when c is a '.';
//   any other expression character: to the next position when it equals c (c upcased first
//            when IgnoreCase).
// The name matches when position m is in the set after the last character and the final
// closure. Each name character costs O(m), so a match costs O(n * m) at worst with O(m) memory.
#include <ntsim/fsrtl.h>
#include <ntsim/rtl.h>

#include <vector>

#include "rtl_internal.hpp"

namespace {

// Adds to the set every position reachable without consuming a character. Those moves only go
// forward, so one ascending pass suffices.
void Close(std::vector<UCHAR>& states, const WCHAR* expression, size_t m, bool atDot, bool atEnd)
{
    for (size_t p = 0; p < m; ++p) {
        if (!states[p]) {
            continue;
        }
        const WCHAR e = expression[p];
        if (e == L'*' || e == DOS_STAR || (e == DOS_QM && (atDot || atEnd)) || (e == DOS_DOT && atEnd)) {
            states[p + 1] = 1;
        }
    }
}

}  // namespace

NTKERNELAPI BOOLEAN NTAPI FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name,
                                                  BOOLEAN IgnoreCase, PWCH UpcaseTable)
{
    ntsim::rtl::CheckPagedCaller("FsRtlIsNameInExpression");
    const size_t m = Expression->Length / sizeof(WCHAR);
    const size_t n = Name->Length / sizeof(WCHAR);
    if (m == 0 || n == 0) {
        return m == 0 && n == 0;
    }
    const WCHAR* expression = Expression->Buffer;

    size_t lastDot = n;  // none
    for (size_t i = n; i-- > 0;) {
        if (Name->Buffer[i] == L'.') {
            lastDot = i;
            break;
        }
    }

    std::vector<UCHAR> current(m + 1, 0);
    std::vector<UCHAR> next(m + 1, 0);
    current[0] = 1;
    for (size_t i = 0; i < n; ++i) {
        WCHAR c = Name->Buffer[i];
        if (IgnoreCase) {
            c = UpcaseTable != nullptr ? UpcaseTable[c] : RtlUpcaseUnicodeChar(c);
        }
        const bool isDot = Name->Buffer[i] == L'.';
        Close(current, expression, m, isDot, false);

        bool any = false;
        for (size_t p = 0; p < m; ++p) {
            if (!current[p]) {
                continue;
            }
            const WCHAR e = expression[p];
            if (e == L'*' || (e == DOS_STAR && i != lastDot)) {
                next[p] = 1;
                any = true;
            } else if (e == L'?' || (e == DOS_QM && !isDot) || (e == DOS_DOT && isDot) ||
                       (e != L'*' && e != DOS_STAR && e != DOS_QM && e != DOS_DOT && e == c)) {
                next[p + 1] = 1;
                any = true;
            }
        }
        if (!any) {
            return FALSE;
        }
        current.swap(next);
        std::fill(next.begin(), next.end(), UCHAR(0));
    }
    Close(current, expression, m, false, true);
    return current[m] != 0;
}

NTKERNELAPI BOOLEAN NTAPI FsRtlDoesNameContainWildCards(PUNICODE_STRING Name)
{
    for (size_t i = 0; i < Name->Length / sizeof(WCHAR); ++i) {
        if (FsRtlIsUnicodeCharacterWild(Name->Buffer[i])) {
            return TRUE;
        }
    }
    return FALSE;
}
