// What a scene expected of each result it prints: a line shows the result, and a mark beside it
// when it differs from what was due; the scene's exit status counts the marks.
#pragma once

#include <ostream>
#include <string>

namespace fmsim {

class Expectations {
public:
    explicit Expectations(std::ostream& out) : out_(out) {}

    // Prints indent, label and actual and, when actual differs from expected, a mark naming what
    // was due.
    void Line(const std::string& indent, const std::string& label, const std::string& actual,
              const std::string& expected)
    {
        out_ << indent << label << actual;
        if (actual != expected) {
            out_ << "   <-- expected " << expected;
            failures_++;
        }
        out_ << "\n";
    }

    int failures() const { return failures_; }

private:
    std::ostream& out_;
    int failures_ = 0;
};

}  // namespace fmsim
