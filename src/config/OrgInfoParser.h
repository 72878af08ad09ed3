// SPDX-License-Identifier: Apache-2.0
// Reading the texts of SWGConfig.json and SWGConfigOverride.json into the record, and the
// validity rule. No files here: callers hand in the texts.
#pragma once

#include <functional>
#include <string>

#include "config/OrgInfo.h"

// Supplies the override file's text when the parser is ready for it; "" means none.
using OverrideTextSource = std::function<std::string()>;

// Fills `info`, a freshly constructed record, from `configText`. Each key is read by its
// form; a key that is absent or of another form leaves its member at the default. Every
// message goes to the system log at the error priority, in the order of the file's keys.
// `readOverride` is called once, and only after `configText` has parsed, so that its own
// messages follow; an empty or malformed override text means no override.
// Returns false, after "\nSWG : Failed to parse json file", when `configText` is not JSON;
// `info` and the override are then left untouched.
bool ParseOrgInfoText(const std::string& configText, const OverrideTextSource& readOverride,
                      OrgInfoRecord& info);

// The validity rule: organisation id, device id, public key and key id present, and at
// least one gateway source. Returns false after "\nSWG: JSON file has few empty values.".
bool IsOrgInfoValid(const OrgInfoRecord& info);

// ParseOrgInfoText with a fixed override text, then IsOrgInfoValid. For tests and
// fuzzing; the agent's LoadOrgInfo adds the files and the anycast flag around the two.
bool ParseOrgInfo(const std::string& configText, const std::string& overrideText,
                  OrgInfoRecord& info);
