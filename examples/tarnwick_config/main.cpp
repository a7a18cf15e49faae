// SPDX-License-Identifier: Apache-2.0
// tarnwick-config: looks at and writes the configuration a host built on this library would see.
//
//   tarnwick-config show [options]    every property, its value and where the value came from
//   tarnwick-config write [options]   writes the INI file from the resulting table
//   tarnwick-config scramble TEXT     prints the scrambled form of TEXT (for stored passwords)
//   tarnwick-config clients ...       lists and edits the client table a host keeps in appdata
//
// Options are the host's: "-name value" for any property, and "-inifile path". They are applied
// and the INI file is read exactly as upnp_ini_file_parse_cmdline does for a host.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "../shared/installed_resources.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/config.h"
#include "tarnwick/core.h"
#include "tarnwick/log.h"
#include "tarnwick/media.h"
#include "tarnwick/platform.h"
#include "tarnwick/util.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
// The scrambler uses at most 128 plain bytes: "::", the key digit, 2 digits a byte, the NUL.
constexpr size_t kScrambledSize = 3 + 2 * 128 + 1;

void PrintToolUsage(const char* program) {
  std::printf(
      "usage: %s show [options]     print every property, its value and its source\n"
      "       %s write [options]    write the INI file after applying options and INI file\n"
      "       %s scramble TEXT      print the scrambled form of TEXT\n"
      "       %s clients list [options]                      the clients kept in appdata\n"
      "       %s clients types [options]                     the client types, number and name\n"
      "       %s clients add MAC TYPE [VIEW] [options]       add a client, or change its type\n"
      "       %s clients enable|disable|delete MAC [options] edit a client by its MAC address\n"
      "\n"
      "options: -<property> <value> for any property (e.g. -httpport 9000 -v 255),\n"
      "         -inifile <path of the INI file>, -inipath <dir>, -ininame <file name>\n"
      "MAC is written AA:BB:CC:DD:EE:FF; TYPE is a number that \"clients types\" lists.\n",
      program, program, program, program, program, program, program);
}

const char* OriginName(int32_t origin) {
  switch (origin) {
    case UPNP_INI_ORIGIN_DEFAULT:
      return "default";
    case UPNP_INI_ORIGIN_INI_FILE:
      return "ini file";
    case UPNP_INI_ORIGIN_COMMAND_LINE:
      return "command line";
    case UPNP_INI_ORIGIN_PROGRAM:
      return "program";
    default:
      return "?";
  }
}

// Sets up the library as a host would and applies argv[0] plus the options from argv[first] on.
// Returns false when the options asked for help (the library printed its usage).
bool LoadConfiguration(int argc, char** argv, int first) {
  std::vector<char*> args;
  args.push_back(argv[0]);
  for (int i = first; i < argc; ++i) args.push_back(argv[i]);
  args.push_back(nullptr);
  return upnp_ini_file_parse_cmdline(static_cast<int32_t>(args.size() - 1), args.data()) == 0;
}

void Show() {
  const char* path = upnp_ini_file_get_ini_path();
  std::printf("INI file: %s (%s)\n\n", path != nullptr ? path : "(none)",
              path != nullptr && upnp_is_file(path) != 0 ? "found" : "not found");
  size_t name_width = std::strlen("NAME");
  for (uint32_t key = 0; key < UPNP_INI_MAX_KEYS; ++key) {
    const char* name = upnp_ini_file_getPropParamName(key);
    if (name != nullptr && std::strlen(name) > name_width) name_width = std::strlen(name);
  }
  const int width = static_cast<int>(name_width);
  std::printf("%3s  %-*s  %-12s  %-8s  %s\n", "KEY", width, "NAME", "SOURCE", "FLAGS", "VALUE");
  for (uint32_t key = 0; key < UPNP_INI_MAX_KEYS; ++key) {
    if (upnp_ini_file_isValidKey(key) == 0) continue;
    const char* name = upnp_ini_file_getPropParamName(key);
    const char* value = upnp_ini_file_getString(key);
    const char* flags = upnp_ini_file_propertyIsDisabled(key) != 0 ? "disabled"
                        : upnp_ini_file_propertyIsHidden(key) != 0 ? "hidden"
                                                                   : "";
    std::printf("%3u  %-*s  %-12s  %-8s  ", static_cast<unsigned>(key), width,
                name != nullptr ? name : "?", OriginName(upnp_ini_file_get_property_origin(key)),
                flags);
    if (value == nullptr) {
      std::puts("(none)");
    } else if (*value == '\0') {
      std::puts("\"\"");
    } else {
      std::puts(value);
    }
  }
}

int Write() {
  const char* path = upnp_ini_file_get_ini_path();
  if (path == nullptr) {
    std::fprintf(stderr, "no INI path: give -inifile or -inipath\n");
    return kExitFailed;
  }
  if (upnp_ini_file_getBoolean(UPNP_INI_KEY_READ_ONLY) != 0) {
    std::printf("read_only is set: %s left unchanged\n", path);
    return kExitOk;
  }
  // The writer reports failures only through the log, whose mode may be 0. It deletes the old
  // file first anyway; doing that here makes the file's presence afterwards the verdict.
  if (upnp_file_unlink(path) != 0 && upnp_file_exists(path) != 0) {
    std::fprintf(stderr, "ini file \"%s\" not writable\n", path);
    return kExitFailed;
  }
  upnp_ini_file_write_properties();
  if (upnp_is_file(path) == 0) {
    std::fprintf(stderr, "ini file \"%s\" not writable\n", path);
    return kExitFailed;
  }
  std::printf("wrote %s\n", path);
  return kExitOk;
}

int Scramble(const char* text) {
  if (std::strlen(text) > 128) {
    std::fprintf(stderr, "note: only the first 128 bytes are scrambled\n");
  }
  char out[kScrambledSize];
  upnp_string_encrypt(text, out, sizeof(out));
  std::puts(out);
  return kExitOk;
}

// ---- clients -------------------------------------------------------------------------------

enum class ClientAction { kList, kTypes, kAdd, kEnable, kDisable, kDelete };

struct ClientsRequest {
  ClientAction action = ClientAction::kList;
  const char* mac = nullptr;
  int32_t type = 0;
  const char* view = nullptr;
  int first_option = 3;  // argv index of the first host option
};

struct ClientType {
  int32_t number;
  std::string name;
};

bool IsOption(const char* arg) { return arg != nullptr && arg[0] == '-'; }

// "clients ACTION ..." from argv[2] on; false for anything that is not a whole request.
bool ParseClientsRequest(int argc, char** argv, ClientsRequest* request) {
  if (argc < 3) return false;
  const char* action = argv[2];
  int positional = 0;
  if (std::strcmp(action, "list") == 0) {
    request->action = ClientAction::kList;
  } else if (std::strcmp(action, "types") == 0) {
    request->action = ClientAction::kTypes;
  } else if (std::strcmp(action, "add") == 0) {
    request->action = ClientAction::kAdd;
    positional = 2;
  } else if (std::strcmp(action, "enable") == 0) {
    request->action = ClientAction::kEnable;
    positional = 1;
  } else if (std::strcmp(action, "disable") == 0) {
    request->action = ClientAction::kDisable;
    positional = 1;
  } else if (std::strcmp(action, "delete") == 0) {
    request->action = ClientAction::kDelete;
    positional = 1;
  } else {
    return false;
  }
  int next = 3;
  for (int i = 0; i < positional; ++i, ++next) {
    if (next >= argc || IsOption(argv[next])) return false;
  }
  if (positional > 0) request->mac = argv[3];
  if (request->action == ClientAction::kAdd) {
    char* end = nullptr;
    errno = 0;
    const long type = std::strtol(argv[4], &end, 10);
    // The last slot never takes an entry.
    if (errno != 0 || end == argv[4] || *end != '\0' || type < 0 ||
        type > UPNP_CLIENT_TYPE_SLOTS - 2) {
      std::fprintf(stderr, "TYPE must be a number from 0 to %d\n", UPNP_CLIENT_TYPE_SLOTS - 2);
      return false;
    }
    request->type = static_cast<int32_t>(type);
    if (next < argc && !IsOption(argv[next])) request->view = argv[next++];
  }
  request->first_option = next;
  return true;
}

// The loaded client types. The table joins "%03d,name" items with ",": an item starts only
// where three digits and a comma follow a separator, so a comma inside a name stays in it.
std::vector<ClientType> ClientTypes() {
  std::vector<ClientType> types;
  char* table = upnp_client_db_get_table();
  if (table == nullptr) return types;
  auto item_at = [](const char* p) {
    return p[0] >= '0' && p[0] <= '9' && p[1] >= '0' && p[1] <= '9' && p[2] >= '0' && p[2] <= '9' &&
           p[3] == ',';
  };
  const char* at = table;
  while (item_at(at)) {
    const char* name = at + 4;
    const char* end = name;
    while (*end != '\0' && !(*end == ',' && item_at(end + 1))) ++end;
    types.push_back({std::atoi(std::string(at, 3).c_str()), std::string(name, end)});
    at = *end != '\0' ? end + 1 : end;
  }
  upnp_free_impl(table);
  return types;
}

int PrintTypes() {
  const std::vector<ClientType> types = ClientTypes();
  if (types.empty()) {
    std::fprintf(stderr, "no client types loaded: resources/clients.db not found\n");
    return kExitFailed;
  }
  for (const ClientType& type : types) std::printf("%03d  %s\n", type.number, type.name.c_str());
  return kExitOk;
}

int ListClients() {
  const std::vector<ClientType> types = ClientTypes();
  auto type_name = [&types](int32_t number) -> std::string {
    for (const ClientType& type : types) {
      if (type.number == number) return type.name;
    }
    return "?";
  };
  auto text = [](const char* value) -> std::string {
    return value != nullptr && value[0] != '\0' ? value : "-";
  };
  std::vector<std::vector<std::string>> rows = {
      {"TYPE", "TYPE NAME", "MAC", "IP", "ENABLED", "VIEW", "NAME", "UDN"}};
  // The tool starts no thread of the library, so nothing else can change the table while it is
  // walked without the client database lock (which the C interface keeps to itself).
  for (const upnp_client* client = g_pClients; client != nullptr; client = client->next) {
    char number[16];
    std::snprintf(number, sizeof(number), "%03d", static_cast<int>(client->client_type));
    rows.push_back({number, type_name(client->client_type), text(client->mac), text(client->ip),
                    client->enabled != 0 ? "yes" : "no",
                    client->view != nullptr ? client->view : "(default)",
                    text(client->friendly_name), text(client->udn)});
  }
  if (rows.size() == 1) {
    std::puts("no clients");
    return kExitOk;
  }
  std::vector<size_t> widths(rows[0].size(), 0);
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - row[i].size() + 2, ' ');
    }
    std::puts(line.c_str());
  }
  return kExitOk;
}

bool HasClient(const char* mac) {
  for (const upnp_client* client = g_pClients; client != nullptr; client = client->next) {
    if (client->mac != nullptr && std::strcmp(client->mac, mac) == 0) return true;
  }
  return false;
}

// Prints the library's answer (to stderr when it reports a failure) and frees it.
void PrintAnswer(upnp_string* answer, bool failed) {
  const char* text = upnp_string_get_cstring(answer);
  if (text != nullptr) {
    std::fputs(text, failed ? stderr : stdout);
    if (text[0] != '\0' && text[std::strlen(text) - 1] != '\n')
      std::fputc('\n', failed ? stderr : stdout);
  }
  upnp_string_free(answer);
}

int EditClient(const ClientsRequest& request) {
  upnp_string* answer = nullptr;
  const char* text = nullptr;
  switch (request.action) {
    case ClientAction::kAdd:
      // The library takes the view only for a client it already knows under that type: a new
      // client with a view is added first and then given the view by a second call.
      if (request.view != nullptr && !HasClient(request.mac)) {
        upnp_string_free(upnp_client_add(request.mac, request.type, 1, nullptr));
      }
      answer = upnp_client_add(request.mac, request.type, 1, request.view);
      text = upnp_string_get_cstring(answer);
      if (text == nullptr) {
        std::fprintf(stderr, "client %s not added\n", request.mac);
        upnp_string_free(answer);
        return kExitFailed;
      }
      {
        const bool failed = std::strcmp(text, "invalid MAC address") == 0;
        PrintAnswer(answer, failed);
        return failed ? kExitFailed : kExitOk;
      }
    case ClientAction::kDelete:
      answer = upnp_client_delete(request.mac);
      text = upnp_string_get_cstring(answer);
      {
        const bool failed = text == nullptr || std::strcmp(text, "deleted!") != 0;
        PrintAnswer(answer, failed);
        return failed ? kExitFailed : kExitOk;
      }
    case ClientAction::kEnable:
    case ClientAction::kDisable: {
      const int32_t enabled = request.action == ClientAction::kEnable ? 1 : 0;
      answer = upnp_client_enable_by_mac(request.mac, enabled);
      if (upnp_string_get_cstring(answer) != nullptr) {
        PrintAnswer(answer, false);
        return kExitOk;
      }
      upnp_string_free(answer);
      // No record changed: either there is none with that MAC, or it was already so.
      if (!HasClient(request.mac)) {
        std::fputs("not found!\n", stderr);
        return kExitFailed;
      }
      std::printf("%s already %s\n", request.mac, enabled != 0 ? "enabled" : "disabled");
      return kExitOk;
    }
    default:
      return kExitUsage;
  }
}

int Clients(const ClientsRequest& request) {
  // The tool only looks at and edits the table; a host's wish to start with an empty one must
  // not empty it each time the tool runs. The INI file is not written here.
  upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_CLEARCLIENTSONRESTART, "0");
  register_upnp_resource_get_function(&examples::GetInstalledResource);
  upnp_client_db_init();
  int status = kExitOk;
  switch (request.action) {
    case ClientAction::kList:
      status = ListClients();
      break;
    case ClientAction::kTypes:
      status = PrintTypes();
      break;
    default:
      status = EditClient(request);
      break;
  }
  upnp_client_db_exit();
  register_upnp_resource_get_function(nullptr);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  const char* program = argc > 0 && argv[0] != nullptr ? argv[0] : "tarnwick-config";
  if (argc < 2) {
    PrintToolUsage(program);
    return kExitUsage;
  }
  const char* command = argv[1];
  if (std::strcmp(command, "scramble") == 0) {
    if (argc != 3) {
      PrintToolUsage(program);
      return kExitUsage;
    }
    return Scramble(argv[2]);
  }
  const bool show = std::strcmp(command, "show") == 0;
  const bool write = std::strcmp(command, "write") == 0;
  const bool clients = std::strcmp(command, "clients") == 0;
  ClientsRequest request;
  if ((!show && !write && !clients) || (clients && !ParseClientsRequest(argc, argv, &request))) {
    PrintToolUsage(program);
    return kExitUsage;
  }

  upnp_mem_init();
  upnp_log_init(nullptr);
  upnp_ini_file_init();
  int status = kExitUsage;
  if (LoadConfiguration(argc, argv, clients ? request.first_option : 2)) {
    if (show) {
      Show();
      status = kExitOk;
    } else if (write) {
      status = Write();
    } else {
      status = Clients(request);
    }
  }
  upnp_ini_file_release();
  upnp_log_exit();
  upnp_mem_exit();
  return status;
}
