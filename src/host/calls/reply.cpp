#include "host/calls/reply.h"

#include <algorithm>

#include "host/interpreter/errors.h"

namespace tarvomeldric::host {
namespace {

nb::object member(nb::handle object, const char* name) {
  if (!PyDict_Check(object.ptr())) return nb::none();
  const nb::handle found = entry(object, name);
  return found ? nb::borrow(found) : nb::none();
}

nb::object first_choice(nb::handle reply) {
  const nb::object choices = member(reply, "choices");
  const bool any = PyList_Check(choices.ptr()) && PyList_GET_SIZE(choices.ptr()) > 0;
  return any ? nb::borrow(PyList_GET_ITEM(choices.ptr(), 0)) : nb::none();
}

bool is_blank(nb::handle text) {
  if (!PyUnicode_Check(text.ptr())) return text.is_none();
  return nb::len(call(text.attr("strip"))) == 0;
}

// A content that comes in parts.
bool holds_nothing(nb::handle parts) {
  if (!PyList_Check(parts.ptr())) return !is_true(parts);
  return std::ranges::all_of(nb::borrow<nb::list>(parts), [](nb::handle part) {
    const nb::object kind = member(part, "type");
    return kind.equal("text"_key) && is_blank(member(part, "text"));
  });
}

}  // namespace

nb::object usage_of(nb::handle reply) { return member(reply, "usage"); }

TokenUsage tokens_in(nb::handle usage) {
  const auto count = [usage](const char* name, const char* other) -> std::optional<std::int64_t> {
    nb::object told = member(usage, name);
    if (told.is_none()) told = member(usage, other);
    if (!PyLong_CheckExact(told.ptr())) return std::nullopt;
    int overflow = 0;
    const std::int64_t number = PyLong_AsLongLongAndOverflow(told.ptr(), &overflow);
    return overflow == 0 && number >= 0 ? std::optional(number) : std::nullopt;
  };
  return {count("prompt_tokens", "input_tokens"), count("completion_tokens", "output_tokens")};
}

nb::object finish_reason_of(nb::handle reply) {
  return member(first_choice(reply), "finish_reason");
}

nb::object tool_calls_of(nb::handle reply) {
  return member(member(first_choice(reply), "message"), "tool_calls");
}

nb::object words_in(nb::handle reply) {
  const nb::object choice = item(item(reply, "choices"), nb::int_(0));
  const nb::object message = member(choice, "message");
  return message.is_none() ? item(choice, "text") : member(message, "content");
}

bool is_empty_answer(nb::handle answer, nb::handle reply) {
  const nb::object message = member(first_choice(reply), "message");
  if (!is_blank(answer)) {
    const nb::object content = member(message, "content");
    if (!content.is_none() && !PyUnicode_Check(content.ptr())) return holds_nothing(content);
    // An embedding of no numbers, as its JSON text.
    return !member(reply, "data").is_none() && nb::handle(answer).equal("[]"_key);
  }
  constexpr const char* kOther[] = {"tool_calls", "function_call",     "refusal",
                                    "reasoning",  "reasoning_content", "audio"};
  return std::ranges::none_of(kOther,
                              [&](const char* name) { return is_true(member(message, name)); });
}

}  // namespace tarvomeldric::host
