#include "host/calls/contract.h"

#include <string_view>

#include "host/records/argument.h"
#include "semantic/json_pieces.h"
#include "support/text.h"

namespace tarvomeldric::host {
namespace {

constexpr double kDefaultSimilarity = 0.8;
constexpr Py_ssize_t kHashDigits = 16;

std::string shown_list(const nb::list& items) { return text_form(items); }

ContractCheck check(const char* strategy, bool passed, std::string detail) {
  return {strategy, passed, std::move(detail)};
}

// Reads a JSON text as Python's parser does; null for what it cannot read, too deep or too long
// included.
nb::object parsed(nb::handle json) {
  try {
    return call(import("json").attr("loads"), json);
  } catch (nb::python_error& failure) {
    if (!failure.matches(PyExc_ValueError) && !failure.matches(PyExc_RecursionError)) throw;
    return {};
  }
}

nb::object parsed_part(std::string_view part) {
  if (part.empty()) return nb::none();
  nb::object document = parsed(from_utf8(part));
  return document.is_valid() ? document : nb::none();
}

// The document in an output: all of it, or the first piece in braces, or what brackets enclose.
// None when there is none.
nb::object document_in(nb::handle output) {
  nb::object whole = parsed(output);
  if (whole.is_valid()) return whole;
  const std::string text = to_utf8(output);
  nb::object document = parsed_part(innermost_braces(text));
  return document.is_none() ? parsed_part(widest_brackets(text)) : document;
}

bool contains(nb::handle container, nb::handle item) {
  const int found = host_call([&] { return PySequence_Contains(container.ptr(), item.ptr()); });
  if (found < 0) throw nb::python_error();
  return found != 0;
}

nb::list missing_keys(nb::handle object, nb::handle required) {
  nb::list missing;
  for (nb::handle key : required) {
    if (!contains(object, key)) missing.append(key);
  }
  return missing;
}

ContractCheck keys_check(nb::handle object, nb::handle required, const char* complaint) {
  const nb::list missing = missing_keys(object, required);
  if (missing.empty()) return check("schema", true, "schema_ok");
  return check("schema", false, complaint + shown_list(missing));
}

nb::object lowered(nb::handle text) { return call(text.attr("lower")); }

nb::object words_of(nb::handle text) {
  return made(PySet_New(call(lowered(text).attr("split")).ptr()));
}

}  // namespace

ContractCheck validate_schema(const Contract& contract, nb::handle output) {
  const nb::object document = document_in(output);
  if (document.is_none()) return check("schema", false, "No valid JSON found in output");
  if (!PyDict_Check(contract.output_schema.ptr())) return check("schema", true, "schema_ok");
  const nb::object required = call(contract.output_schema.attr("get"), "required", nb::list());
  if (PyDict_Check(document.ptr())) return keys_check(document, required, "Missing keys: ");
  if (PyList_Check(document.ptr()) && is_true(required) && is_true(document)) {
    const nb::object first = document[0];
    if (PyDict_Check(first.ptr())) {
      return keys_check(first, required, "Missing keys in list items: ");
    }
  }
  return check("schema", true, "schema_ok");
}

ContractCheck validate_determinism(const Contract& contract, nb::handle output) {
  const std::string utf8 = to_utf8(output);
  const nb::object digest =
      call(call(import("hashlib").attr("sha256"), nb::bytes(utf8.data(), utf8.size()))
               .attr("hexdigest"));
  const auto prefix = made(PyUnicode_Substring(digest.ptr(), 0, kHashDigits));
  const bool match = prefix.equal(contract.determinism_hash);
  return check("determinism", match, match ? "hash_match=True" : "hash_match=False");
}

ContractCheck validate_similarity(const Contract& contract, nb::handle output) {
  const nb::object words = words_of(output);
  const nb::object wanted = words_of(contract.reference_text);
  if (!is_true(words) || !is_true(wanted)) return check("similarity", false, "empty_text");
  const double shared = static_cast<double>(nb::len(words & wanted));
  const double jaccard = shared / static_cast<double>(nb::len(words | wanted));
  const nb::object threshold = is_true(contract.similarity_threshold)
                                   ? contract.similarity_threshold
                                   : number(kDefaultSimilarity);
  const bool passed = jaccard >= convert_argument<double>(threshold, "similarity_threshold");
  return check("similarity", passed,
               "jaccard=" + text::fixed(jaccard, 3) + " threshold=" + text_form(threshold));
}

ContractCheck validate_entities(const Contract& contract, nb::handle output) {
  const nb::object text = lowered(output);
  nb::list missing;
  for (nb::handle entity : contract.required_entities) {
    if (!contains(text, lowered(entity))) missing.append(entity);
  }
  if (missing.empty()) return check("entities", true, "all_entities_present");
  return check("entities", false, "Missing entities: " + shown_list(missing));
}

ContractCheck validate_forbidden(const Contract& contract, nb::handle output) {
  const nb::object re = import("re");
  nb::list found;
  for (nb::handle pattern : contract.forbidden_patterns) {
    if (!call(re.attr("search"), pattern, output, re.attr("IGNORECASE")).is_none()) {
      found.append(pattern);
    }
  }
  if (found.empty()) return check("forbidden", true, "no_forbidden_patterns");
  return check("forbidden", false, "Forbidden patterns found: " + shown_list(found));
}

ContractResult validate(const Contract& contract, nb::handle output) {
  nb::list checks;
  bool passed = true;
  const auto add = [&](ContractCheck made) {
    passed = passed && made.passed;
    checks.append(nb::cast(std::move(made)));
  };
  if (!contract.output_schema.is_none()) add(validate_schema(contract, output));
  if (!contract.determinism_hash.is_none()) add(validate_determinism(contract, output));
  if (!contract.similarity_threshold.is_none() && !contract.reference_text.is_none()) {
    add(validate_similarity(contract, output));
  }
  if (!contract.required_entities.is_none()) add(validate_entities(contract, output));
  if (!contract.forbidden_patterns.is_none()) add(validate_forbidden(contract, output));
  return {passed, checks, primary_strategy(contract)};
}

std::string primary_strategy(const Contract& contract) {
  if (!contract.output_schema.is_none()) return "schema";
  if (!contract.determinism_hash.is_none()) return "determinism";
  if (!contract.similarity_threshold.is_none()) return "similarity";
  if (!contract.required_entities.is_none()) return "entities";
  return "forbidden";
}

nb::dict to_dict(const ContractResult& result) {
  nb::list checks;
  for (nb::handle check : result.checks) {
    checks.append(make_dict({{"strategy", check.attr("strategy")},
                             {"passed", check.attr("passed")},
                             {"detail", check.attr("detail")}}));
  }
  return make_dict({{"passed", truth(result.passed)},
                    {"contract_type", from_utf8(result.contract_type)},
                    {"checks", checks}});
}

}  // namespace tarvomeldric::host
