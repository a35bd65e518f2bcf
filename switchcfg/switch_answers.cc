#include "switchcfg/switch_answers.h"

#include <sstream>

namespace dtl::ipfix {

using dtl::json::value;

value ParseSwitchAnswer(const std::string& text) {
  // A stream read stops after the first complete value and leaves the rest.
  std::istringstream in(text);
  value answer;
  try {
    in >> answer;
  } catch (const nlohmann::json::exception&) {
    return value(value::value_t::discarded);
  }
  return answer;
}

std::string RevisionOf(const value& answer) {
  // The identifier is the name of the first member; its value is not used.
  if (!answer.is_object() || answer.empty()) return {};
  return answer.items().begin().key();
}

bool ExportStateIs(const value& answer, const std::string& expected) {
  if (!answer.is_object()) return false;
  const auto exported = answer.find("export");
  if (exported == answer.end() || !exported->is_object()) return false;
  const auto state = exported->find("state");
  return state != exported->end() && state->is_string() && state->get_ref<const std::string&>() == expected;
}

std::vector<std::string> MemberNames(const value& answer) {
  std::vector<std::string> names;
  if (!answer.is_object()) return names;
  names.reserve(answer.size());
  for (const auto& member : answer.items())
    if (!member.key().empty()) names.push_back(member.key());
  return names;
}

}  // namespace dtl::ipfix
