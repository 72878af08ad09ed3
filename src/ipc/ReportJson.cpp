// SPDX-License-Identifier: Apache-2.0
// The JSON texts the agent reports.
#include "ipc/ReportJson.h"

#include <cjson/cJSON.h>

#include <cstdlib>
#include <memory>
#include <sstream>

namespace {
struct JsonDeleter {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

// The printed text of `root`; false when the printer has no memory.
bool Print(const cJSON* root, bool formatted, std::string& text) {
    char* printed = formatted ? cJSON_Print(root) : cJSON_PrintUnformatted(root);
    if (printed == nullptr) return false;
    text = printed;
    cJSON_free(printed);
    return true;
}

// ";" ends each entry: a trailing ";" adds nothing, two in a row add an empty entry.
cJSON* SplitToArray(const std::string& list) {
    cJSON* array = cJSON_CreateArray();
    if (array == nullptr) return nullptr;
    std::istringstream entries(list);
    for (std::string entry; std::getline(entries, entry, ';');) {
        cJSON_AddItemToArray(array, cJSON_CreateString(entry.c_str()));
    }
    return array;
}
}  // namespace

bool BuildStateMessageJson(const std::string& word, std::string& text) {
    JsonPtr root(cJSON_CreateObject());
    if (!root) return false;
    cJSON_AddNumberToObject(root.get(), "version", 1);
    cJSON_AddStringToObject(root.get(), "swg_protection_state", word.c_str());
    return Print(root.get(), false, text);
}

bool BuildStateReportJson(int number, std::string& text) {
    JsonPtr root(cJSON_CreateObject());
    if (!root) return false;
    cJSON_AddNumberToObject(root.get(), "ver", 1);
    cJSON_AddNumberToObject(root.get(), "state", number);
    return Print(root.get(), false, text);
}

bool BuildStateFileJson(const std::string& word, const OrgInfoRecord& info, std::string& text,
                        std::string& failure) {
    JsonPtr root(cJSON_CreateObject());
    if (!root) {
        failure = "CSWGAgent: Failed to create cjson object";
        return false;
    }
    cJSON_AddNumberToObject(root.get(), "version", 1);
    cJSON_AddStringToObject(root.get(), "swg_protection_state", word.c_str());
    cJSON_AddStringToObject(root.get(), "swg_proxy_fqdn", info.strSWGDomain.c_str());
    if (cJSON* exceptions = SplitToArray(info.strExceptionList))
        cJSON_AddItemToObject(root.get(), "exception_list", exceptions);
    if (cJSON* inclusions = SplitToArray(info.strInclusionList))
        cJSON_AddItemToObject(root.get(), "inclusion_list", inclusions);
    if (!Print(root.get(), true, text)) {
        failure = "CSWGAgent: Failed to format state JSON for file writing";
        return false;
    }
    return true;
}

bool BuildServiceStatsJson(const SERVICE_STATS& stats, std::string& text, std::string& failure) {
    JsonPtr root(cJSON_CreateObject());
    if (!root) {
        failure = "CSWGAgent: Failed to create pRoot cjson object";
        return false;
    }
    cJSON* connections = cJSON_CreateObject();
    if (connections == nullptr) {
        failure = "CSWGAgent: Failed to create pConn cjson object";
        return false;
    }
    cJSON_AddNumberToObject(root.get(), "version", 1);
    cJSON_AddItemToObject(root.get(), "web_connections_info", connections);
    // Strings on purpose: a reader that parses numbers as doubles loses counts above 2^53.
    cJSON_AddStringToObject(connections, "http_connections",
                            std::to_string(stats.totalHTTPConnections).c_str());
    cJSON_AddStringToObject(connections, "https_connections",
                            std::to_string(stats.totalHTTPSConnections).c_str());
    cJSON_AddStringToObject(connections, "bypassed_connections",
                            std::to_string(stats.totalBypassedHostConnections).c_str());
    cJSON_AddStringToObject(root.get(), "tarnwall_proxy", stats.activeTowerName.c_str());
    if (!stats.msgHistoryLog.empty())
        cJSON_AddStringToObject(root.get(), "user_message", stats.msgHistoryLog.c_str());
    if (!Print(root.get(), false, text)) {
        failure = "CSWGAgent: Failed to create pRoot cjson object";
        return false;
    }
    return true;
}
