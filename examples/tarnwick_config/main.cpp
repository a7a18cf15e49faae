// SPDX-License-Identifier: Apache-2.0
// tarnwick-config: looks at and writes the configuration a host built on this library would see.
//
//   tarnwick-config show [options]    every property, its value and where the value came from
//   tarnwick-config write [options]   writes the INI file from the resulting table
//   tarnwick-config scramble TEXT     prints the scrambled form of TEXT (for stored passwords)
//
// Options are the host's: "-name value" for any property, and "-inifile path". They are applied
// and the INI file is read exactly as upnp_ini_file_parse_cmdline does for a host.
#include <cstdio>
#include <cstring>
#include <vector>

#include "tarnwick/config.h"
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
      "\n"
      "options: -<property> <value> for any property (e.g. -httpport 9000 -v 255),\n"
      "         -inifile <path of the INI file>, -inipath <dir>, -ininame <file name>\n",
      program, program, program);
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

// Sets up the library as a host would and applies argv[0] plus the options behind the command.
// Returns false when the options asked for help (the library printed its usage).
bool LoadConfiguration(int argc, char** argv) {
  std::vector<char*> args;
  args.push_back(argv[0]);
  for (int i = 2; i < argc; ++i) args.push_back(argv[i]);
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
  if (!show && !write) {
    PrintToolUsage(program);
    return kExitUsage;
  }

  upnp_mem_init();
  upnp_log_init(nullptr);
  upnp_ini_file_init();
  int status = kExitUsage;
  if (LoadConfiguration(argc, argv)) {
    if (show) {
      Show();
      status = kExitOk;
    } else {
      status = Write();
    }
  }
  upnp_ini_file_release();
  upnp_log_exit();
  upnp_mem_exit();
  return status;
}
