// What the configurator reads from a switch's answers: the first JSON value
// of the text (whatever follows it is ignored), a new revision's identifier,
// the HFT export state, and the names of a configuration object's members
// (applied keys, interfaces).
#pragma once

#include <string>
#include <vector>

#include "dtl_json.h"

namespace dtl::ipfix {

// The first JSON value of the text; discarded when the text does not begin
// with one.
dtl::json::value ParseSwitchAnswer(const std::string& text);

// The identifier of a created revision: the name of the answer object's
// first member. Empty when there is none.
std::string RevisionOf(const dtl::json::value& answer);

// Whether the answer's export.state is the string `expected`.
bool ExportStateIs(const dtl::json::value& answer, const std::string& expected);

// The non-empty member names of an answer object, in order; none when the
// answer is no object.
std::vector<std::string> MemberNames(const dtl::json::value& answer);

}  // namespace dtl::ipfix
