// SPDX-License-Identifier: Apache-2.0
// Reading the agent's JSON texts and printing the status.
#include "AgentStatus.h"

#include <cjson/cJSON.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>

namespace {
struct JsonDeleter {
    void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

bool IsDecimal(const char* text) {
    if (text == nullptr || *text == '\0') return false;
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') return false;
    }
    return true;
}

bool TakeCounter(const cJSON* object, const char* key, std::string& out) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    if (!cJSON_IsString(item) || !IsDecimal(item->valuestring)) return false;
    out = item->valuestring;
    return true;
}

// `text` as a JSON string literal.
std::string Quoted(const std::string& text) {
    JsonPtr item(cJSON_CreateString(text.c_str()));
    char* printed = item ? cJSON_PrintUnformatted(item.get()) : nullptr;
    const std::string quoted = printed != nullptr ? printed : "\"\"";
    cJSON_free(printed);
    return quoted;
}
}  // namespace

bool ReadStateJson(const std::string& text, AgentStatus& status) {
    JsonPtr root(cJSON_Parse(text.c_str()));
    const cJSON* word = cJSON_GetObjectItemCaseSensitive(root.get(), "swg_protection_state");
    if (!cJSON_IsString(word)) return false;
    status.state = word->valuestring;
    return true;
}

bool ReadStatsJson(const std::string& text, AgentStatus& status) {
    JsonPtr root(cJSON_Parse(text.c_str()));
    const cJSON* counts = cJSON_GetObjectItemCaseSensitive(root.get(), "web_connections_info");
    AgentStatus read = status;
    if (!TakeCounter(counts, "http_connections", read.http) ||
        !TakeCounter(counts, "https_connections", read.https) ||
        !TakeCounter(counts, "bypassed_connections", read.bypassed)) {
        return false;
    }
    const cJSON* gateway = cJSON_GetObjectItemCaseSensitive(root.get(), "tarnwall_proxy");
    if (cJSON_IsString(gateway)) read.gateway = gateway->valuestring;
    status = read;
    return true;
}

bool ReadStateFile(AgentStatus& status) {
    const char* root = std::getenv("SWG_DATA_ROOT");
    const std::string path = std::string(root != nullptr && *root != '\0' ? root : "/opt") +
                             "/trevo/trevoclient/tarnwall/SWG/SWGState.json";
    std::ifstream in(path);
    if (!in) return false;
    std::stringstream text;
    text << in.rdbuf();
    return ReadStateJson(text.str(), status);
}

std::string FormatBlock(const AgentStatus& status) {
    std::ostringstream out;
    out << "state:     " << status.state << "\n"
        << "gateway:   " << (status.gateway.empty() ? "-" : status.gateway) << "\n"
        << "http:      " << status.http << "\n"
        << "https:     " << status.https << "\n"
        << "bypassed:  " << status.bypassed << "\n";
    return out.str();
}

std::string FormatLine(const AgentStatus& status) {
    char clock[16] = "";
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local) != nullptr)
        std::strftime(clock, sizeof(clock), "%H:%M:%S", &local);
    std::ostringstream out;
    out << clock << "  " << status.state << "  gateway "
        << (status.gateway.empty() ? "-" : status.gateway) << "  http " << status.http << "  https "
        << status.https << "  bypassed " << status.bypassed << "\n";
    return out.str();
}

std::string FormatJson(const AgentStatus& status) {
    // The counters are checked decimal texts, so they print as exact JSON numbers.
    return "{\"state\":" + Quoted(status.state) + ",\"gateway\":" + Quoted(status.gateway) +
           ",\"http_connections\":" + status.http + ",\"https_connections\":" + status.https +
           ",\"bypassed_connections\":" + status.bypassed + "}\n";
}
