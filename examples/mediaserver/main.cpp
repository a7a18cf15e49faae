// SPDX-License-Identifier: Apache-2.0
// tarnwick-mediaserver: the first runnable host of the library. It shares one folder over HTTP
// (with byte ranges), announces a UPnP MediaServer over SSDP and answers searches for it.
//
//   tarnwick-mediaserver [-folder PATH] [-idletimeout SECONDS] [-ip ADDRESS] [-httpport PORT]
//                        [-friendlyname NAME] [-v MASK] [-logfile PATH]
//                        [any other property of the library as -name value]
//
// It runs until SIGINT or SIGTERM, then stops the servers (which sends the byebyes) and exits.
// SIGHUP makes it look at the network interfaces at once (as a network-change notice of the
// system would): a new or vanished address restarts the servers.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "../shared/installed_resources.h"
#include "eventing.h"
#include "host.h"
#include "library.h"
#include "tarnwick/clientdb.h"
#include "tarnwick/config.h"
#include "tarnwick/http.h"
#include "tarnwick/log.h"
#include "tarnwick/platform.h"
#include "tarnwick/server.h"
#include "tarnwick/ssdp.h"

namespace mediaserver {
namespace {

constexpr char kDefaultName[] = "Tarnwick Media Server";
constexpr int32_t kPollMs = 100;
constexpr int32_t kSettleMs = 100;
constexpr int64_t kFolderLookMs = 2000;
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;

volatile std::sig_atomic_t g_stop_signal = 0;

volatile std::sig_atomic_t g_network_signal = 0;

void OnSignal(int signal_number) { g_stop_signal = signal_number; }
void OnNetworkSignal(int) { g_network_signal = 1; }

// Library log categories shown when the user chose none: the server core's start and stop lines.
constexpr uint32_t kDefaultLogMask = UPNP_LOG_SYSTEM;

bool Configure(int argc, char** argv) {
  upnp_ini_file_init();
  upnp_ini_file_set_default_appname("tarnwick-mediaserver");
  upnp_ini_file_create_property(kFolderKey, "folder", ".", "Folder shared by the media server", 0,
                                0, 0, 1);
  upnp_ini_file_create_property(kIdleTimeoutKey, "idletimeout", "0",
                                "Seconds a connection may take to send its next request (0: no "
                                "limit)",
                                0, 0, 0, 1);
  if (upnp_ini_file_parse_cmdline(argc, argv) != 0) {
    std::printf("       -folder PATH  the folder to share (default: the current directory)\n");
    std::printf(
        "       -idletimeout SECONDS  close a connection that sends no complete request for that "
        "long (default: 0, never)\n");
    return false;
  }
  // Without a limit every silent or forgotten connection keeps a thread of the server.
  HTTP_set_server_idle_timeout(upnp_ini_file_getInt(kIdleTimeoutKey));
  // A host that announces at once: the default start delay (nmcmode 1) is for set-top boxes
  // that wait for their network. Only when nobody chose a mode.
  if (upnp_ini_file_isModified(UPNP_INI_KEY_NMCMODE) == 0) {
    upnp_ini_file_setPropertyByKey(UPNP_INI_KEY_NMCMODE, "0");
  }
  if (upnp_ini_file_isModified(UPNP_INI_KEY_V) == 0) upnp_log_set_mode(kDefaultLogMask);
  // "stdout", the default, keeps the lines where they already go. A file that cannot be opened
  // or later written (a full disk) sends them to standard output, so they are never lost.
  const char* log_path = upnp_ini_file_getString(UPNP_INI_KEY_LOGFILE);
  if (log_path != nullptr && log_path[0] != '\0' && std::strcmp(log_path, "stdout") != 0) {
    upnp_log_init(log_path);
  }
  return true;
}

}  // namespace

}  // namespace mediaserver

int main(int argc, char** argv) {
  using namespace mediaserver;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  upnp_mem_init();
  upnp_log_init(nullptr);  // standard output
  if (!Configure(argc, argv)) {
    upnp_ini_file_release();
    upnp_log_exit();
    return kExitOk;
  }

  Settings settings;
  const char* folder = upnp_ini_file_getString(kFolderKey);
  settings.folder = folder != nullptr && folder[0] != '\0' ? folder : ".";
  const char* name = upnp_ini_file_getString(UPNP_INI_KEY_FRIENDLYNAME);
  settings.friendly_name = name != nullptr && name[0] != '\0' ? name : kDefaultName;
  settings.udn = upnp_get_server_udn();
  SetSettings(settings);
  upnp_stat info{};
  if (upnp_file_stat(settings.folder.c_str(), &info) != 0 ||
      (info.mode & UPNP_S_IFMT) != UPNP_S_IFDIR) {
    Say("cannot share %s: not a folder", settings.folder.c_str());
    upnp_ini_file_release();
    upnp_log_exit();
    return kExitFailed;
  }

  SetSharedFolder(settings.folder, settings.friendly_name);
  RegisterDescriptionHandlers();
  RegisterContentDirectory();
  RegisterConnectionManager();
  RegisterEventHandlers();
  RegisterStreamingHandlers();
  RegisterStatusPage();
  RegisterSearchHandler();
  upnp_ssdp_isMediaServer();
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGHUP, OnNetworkSignal);

  // The client table and types before the first request or announcement wants them; the
  // configuration names the appdata directory the table is kept in.
  register_upnp_resource_get_function(&examples::GetInstalledResource);
  upnp_client_db_init();
  upnp_server_start(&g_server_running);
  Say("%s (%s) sharing %s", settings.friendly_name.c_str(), settings.udn.c_str(),
      settings.folder.c_str());
  for (int32_t i = 0; i < g_nInterfaceCount; ++i) {
    const upnp_server_data* record = getHTTPServerData(i);
    if (record != nullptr && record->http_socket != -1) {
      Say("status page http://%s:%d/  (description: http://%s:%d/TMSDeviceDescription.xml)",
          record->ip_address, static_cast<int>(record->http_port), record->ip_address,
          static_cast<int>(record->http_port));
    }
  }

  // The signal handler only sets the flag; everything else happens here.
  int64_t next_look = 0;
  while (g_stop_signal == 0) {
    Sleep(kPollMs);
    const int64_t now_ms = getSystemTime();
    if (g_network_signal != 0) {
      g_network_signal = 0;
      Server_trigger_NICchange();
    }
    check_NIC_change(now_ms / 1000);
    if (now_ms >= next_look) {
      // A changed folder means a new SystemUpdateID, which subscribers hear about.
      if (CheckForChanges()) NotifyContentChanged();
      ExpireSubscriptions();
      next_look = now_ms + kFolderLookMs;
    }
  }
  Say("signal %d: stopping", static_cast<int>(g_stop_signal));
  StopEventing();
  // The heartbeat sees the stopping state during stop's pause and sends its byebyes then.
  upnp_server_stop(&g_server_running);
  // The listener ends 50 ms after its socket closed; give the detached threads that long before
  // the log goes away. Handlers stay registered: a connection a client keeps alive still has its
  // worker, which may yet dispatch one last request; the process end takes it with it.
  Sleep(kSettleMs);
  // The client database stays: a kept-alive worker or an announcement check (which may wait on
  // a slow device's description) can still be using its tables, and the process end frees them.
  Say("stopped");
  upnp_log_exit();
  return kExitOk;
}
