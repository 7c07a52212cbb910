#pragma once

#include "engine/events.h"
#include "host/interpreter/python.h"

namespace tarvomeldric::host {

// What stands in the decoded body of an answer, None where there is no such thing: providers
// differ, and some say nothing.
nb::object usage_of(nb::handle reply);
// What such a usage comes to.
TokenUsage tokens_in(nb::handle usage);
nb::object finish_reason_of(nb::handle reply);
nb::object tool_calls_of(nb::handle reply);
// The words of an answer in either form of a chat, which a tool call need not have. A failure of
// Python when there is no answer in it.
nb::object words_in(nb::handle reply);

// Whether an answer says nothing: no text but blanks, and in a chat neither a tool call nor a
// refusal, reasoning or sound.
bool is_empty_answer(nb::handle answer, nb::handle reply);

}  // namespace tarvomeldric::host
