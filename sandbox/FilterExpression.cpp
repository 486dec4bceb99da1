#include "sandbox/FilterExpression.h"

#include "sandbox/ServiceError.h"

namespace Tesmor::Arkwell::Sandbox {

namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Reads a filter from left to right.
class Scanner {
public:
    explicit Scanner(const std::string& text) : text_(text) {}

    /// The letters that come next; none where something else does.
    std::string word() {
        skipBlanks();
        const std::size_t begin = position_;
        while (position_ < text_.size() && isLetter(text_[position_])) {
            ++position_;
        }
        return text_.substr(begin, position_ - begin);
    }

    void expect(char wanted) {
        skipBlanks();
        if (position_ == text_.size() || text_[position_] != wanted) {
            refuse(std::string("\"") + wanted + "\" is expected");
        }
        ++position_;
    }

    std::string quoted() {
        expect('\'');
        std::string content;
        for (; position_ < text_.size(); ++position_) {
            if (text_[position_] != '\'') {
                content += text_[position_];
            } else if (position_ + 1 < text_.size() && text_[position_ + 1] == '\'') {
                content += text_[++position_];
            } else {
                ++position_;
                return content;
            }
        }
        refuse("the text does not end");
    }

    void expectEnd() {
        skipBlanks();
        if (position_ != text_.size()) {
            refuse("the end is expected");
        }
    }

    /// Goes back to the beginning of the word that was read last.
    [[noreturn]] void refuseWord(const std::string& word, const std::string& why) {
        position_ -= word.size();
        refuse(why);
    }

    [[noreturn]] void refuse(const std::string& why) const {
        throw ServiceError(error_kinds::FILTER_MALFORMED,
                           "at character " + std::to_string(position_ + 1) + ": " + why + ": " + text_);
    }

private:
    void skipBlanks() {
        while (position_ < text_.size() && text_[position_] == ' ') {
            ++position_;
        }
    }

    const std::string& text_;
    std::size_t position_ = 0;
};

std::string readField(Scanner& scanner, const std::string& word, const std::map<std::string, bool>& fields,
                      bool startsWith) {
    const auto field = fields.find(word);
    if (field == fields.end() || (startsWith && !field->second)) {
        std::string names;
        for (const auto& [name, takesStart] : fields) {
            if (takesStart || !startsWith) {
                names += (names.empty() ? "" : " or ") + name;
            }
        }
        scanner.refuseWord(word, names + (startsWith ? "" : " or startswith") + " is expected");
    }
    return word;
}

}  // namespace

FilterExpression::FilterExpression(const ServiceRequest& request, const std::map<std::string, bool>& fields) {
    const auto text = request.query.find("filter");
    if (text != request.query.end() && !text->second.empty()) {
        *this = FilterExpression(text->second, fields);
    }
}

FilterExpression::FilterExpression(const std::string& text, const std::map<std::string, bool>& fields) {
    Scanner scanner(text);
    const std::string first = scanner.word();
    if (first == "startswith") {
        comparison_ = Comparison::STARTS_WITH;
        scanner.expect('(');
        field_ = readField(scanner, scanner.word(), fields, true);
        scanner.expect(',');
        text_ = scanner.quoted();
        scanner.expect(')');
    } else {
        comparison_ = Comparison::EQUAL;
        field_ = readField(scanner, first, fields, false);
        const std::string comparison = scanner.word();
        if (comparison != "eq") {
            scanner.refuseWord(comparison, "eq is expected");
        }
        text_ = scanner.quoted();
    }
    scanner.expectEnd();
}

bool FilterExpression::accepts(const std::string& value) const {
    switch (comparison_) {
        case Comparison::EQUAL:
            return value == text_;
        case Comparison::STARTS_WITH:
            return value.compare(0, text_.size(), text_) == 0;
        case Comparison::EVERYTHING:
            break;
    }
    return true;
}

}  // namespace Tesmor::Arkwell::Sandbox
