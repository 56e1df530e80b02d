// The C++ run-time library makes the full form. The last component is found in that text by its
// brackets:
//
//   std::enable_if<(2)>(1), int>::type ns::vec<int>::operator<< <int>(int) const::inner<char>(char)
//                                                                             -----
//
// The text before a space or before two colons is a return type or a scope, unless it is inside
// brackets. Angle brackets hold template arguments, and parentheses hold parameters.
#include "demangle.h"

#include <cxxabi.h>

#include <cctype>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace zorvac::mktrace {
namespace {

bool is_in_identifier(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '$';
}

// The length of the longest operator at the beginning of the text.
std::size_t operator_bytes(std::string_view text) {
  constexpr std::string_view symbols[] = {"<=>", "<<=", ">>=", "->*", "()", "[]", "->", "<<", ">>",
                                          "<=",  ">=",  "==",  "!=",  "&&", "||", "++", "--", "+=",
                                          "-=",  "*=",  "/=",  "%=",  "^=", "&=", "|="};
  for (const std::string_view symbol : symbols)
    if (text.starts_with(symbol)) return symbol.size();
  return 1;
}

class component_finder {
 public:
  explicit component_finder(std::string_view text) : text_{text} {}

  // Empty where the text is not understood.
  std::string_view find() {
    while (at_ < text_.size() && !is_done_) {
      if (!step()) return {};
    }
    return text_.substr(begin_, (has_end_ ? end_ : text_.size()) - begin_);
  }

 private:
  [[nodiscard]] std::string_view rest() const { return text_.substr(at_); }

  bool step() {
    if (at_ == begin_ && is_operator_function()) return pass_operator();
    switch (text_[at_]) {
      case ' ':
        return pass_space();
      case '(':
        return at_ == begin_ ? pass_group() : pass_parameters();
      case '<':
      case '[':  // [abi:cxx11]
        end_here();
        return pass_group();
      case '{':  // {lambda(int)#1}
        return pass_group();
      default:
        if (rest().starts_with("::"))
          begin_at(at_ + 2);
        else
          ++at_;
        return true;
    }
  }

  void begin_at(std::size_t place) {
    begin_ = at_ = place;
    has_end_ = false;
  }
  void end_here() {
    if (!has_end_) end_ = at_;
    has_end_ = true;
  }

  [[nodiscard]] bool is_operator_function() const {
    constexpr std::string_view keyword = "operator";
    return rest().size() > keyword.size() && rest().starts_with(keyword) &&
           !is_in_identifier(rest()[keyword.size()]);
  }
  // The name of an operator for new, delete, a literal or a conversion extends to its parameters.
  bool pass_operator() {
    at_ += std::string_view{"operator"}.size();
    if (text_[at_] != ' ' && text_[at_] != '"') {
      at_ += operator_bytes(rest());
    } else {
      while (at_ < text_.size() && text_[at_] != '(') {
        if (text_[at_] != '<')
          ++at_;
        else if (!pass_group())
          return false;
      }
    }
    end_here();
    while (text_[end_ - 1] == ' ') --end_;  // as in operator void (*)()()
    return true;
  }

  bool pass_space() {
    if (rest().starts_with(" <")) {  // after operator<
      ++at_;
    } else if (rest().starts_with(" requires ") || rest().starts_with(" [clone ")) {
      end_here();
      is_done_ = true;
    } else {
      begin_at(at_ + 1);
    }
    return true;
  }

  // The parameters are followed by the end, or by the name of something inside this routine. In
  // decltype(auto) the parentheses hold no parameters.
  bool pass_parameters() {
    end_here();
    if (!pass_group()) return false;
    for (const std::string_view qualifier : {" const", " volatile", " &&", " &"})
      if (rest().starts_with(qualifier)) at_ += qualifier.size();
    is_done_ = !rest().starts_with("::") && !rest().starts_with(' ');
    return true;
  }

  // Skips the bracket at this place and all that it holds. `<` and `>` may be operators instead of
  // brackets; these are always inside parentheses, which then close them.
  bool pass_group() {
    std::string open;
    do {
      const char c = text_[at_];
      if (c == '(' || c == '[' || c == '{' || c == '<') open += c;
      if (c == '>' && open.back() == '<') open.pop_back();
      if (c == ')' || c == ']' || c == '}') {
        const std::size_t partner = open.rfind(c == ')' ? '(' : c == ']' ? '[' : '{');
        if (partner == std::string::npos) return false;
        open.resize(partner);
      }
      ++at_;
    } while (!open.empty() && at_ < text_.size());
    return open.empty();
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::size_t begin_ = 0, end_ = 0;  // of the component
  bool has_end_ = false, is_done_ = false;
};

}  // namespace

std::string spelled(const std::string& linker_name, name_form form) {
  if (form == name_form::linker || !linker_name.starts_with("_Z")) return linker_name;
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> text{
      abi::__cxa_demangle(linker_name.c_str(), nullptr, nullptr, &status), std::free};
  if (text == nullptr) return linker_name;
  if (form == name_form::full) return text.get();
  const std::string_view component = component_finder{text.get()}.find();
  return component.empty() ? text.get() : std::string{component};
}

}  // namespace zorvac::mktrace
