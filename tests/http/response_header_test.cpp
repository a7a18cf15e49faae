// SPDX-License-Identifier: Apache-2.0
#include "http/response_header.h"

#include "support/test_support.h"

namespace {

using namespace tw::test;

using tw::http::SocketPriority;
const std::string kBanner = "Linux/2.x.x, UPnP/1.0, ktConnect UPnP SDK/1.0, Tarnwick UPnP SDK/1.1";

// Client quirks and clock of the compositions under test.
struct Quirks {
  int32_t needs_1_0 = 0, redsonic = 0;
  uint32_t dlna_version = 0;
} g_quirks;
constexpr tw::http::ResponseEnvironment kFakeEnv = {
    [](int32_t) noexcept { return g_quirks.needs_1_0; },
    [](int32_t) noexcept { return g_quirks.redsonic; },
    [](int32_t) noexcept { return g_quirks.dlna_version; },
    [](char* out, size_t size) noexcept {
      std::snprintf(out, size, "%s", "Sun, 06 Nov 1994 08:49:37 GMT");
      return out;
    },
    []() noexcept { return 5555; }};

// The one header handler of this program, registered before any test (its node is not the
// tests' memory); it adds a line only while a test asks for it.
bool g_handler_active = false;
struct HandlerEnvironment : testing::Environment {
  void SetUp() override {
    upnp_http_register_header_handler([](HttpRequest* r) {
      if (g_handler_active) HTTP_add_header(r, "X-Handler: 1\r\n");
    });
  }
};
testing::Environment* const g_environment =
    testing::AddGlobalTestEnvironment(new HandlerEnvironment);

class HttpResponseHeader : public LeakCheck {
 protected:
  void TearDown() override {
    g_quirks = Quirks();
    request_.reset();
    LeakCheck::TearDown();
  }
  // A fresh HTTP/1.1 GET of url with the given header lines, 5 bytes of video/mp4.
  HttpRequest& Make(const std::string& url, const std::string& lines = "Host: h\r\n") {
    request_ = GetRequest(url, lines);
    std::snprintf(request_->base_url, sizeof(request_->base_url), "%s", "http://10.0.0.2:9000/");
    request_->mime_type = "video/mp4";
    request_->content_length = 5;
    return *request_;
  }
  std::string Compose(int32_t status, SocketPriority* priority = nullptr) {
    tw::http::ResponseHead head;
    tw::http::ComposeResponseHeader(*request_, status, &head, kFakeEnv);
    if (priority != nullptr) *priority = head.priority;
    return std::string(head.text, head.length);
  }
  std::string StatusLine(int32_t status) {
    std::string header = Compose(status);
    return header.substr(0, header.find("\r\n"));
  }
  std::string ContentType(int32_t status) { return HeaderValue(Compose(status), "Content-Type"); }
  bool Has(int32_t status, const std::string& text) {
    return Compose(status).find(text) != std::string::npos;
  }
  std::string Extra() const { return request_->extra_headers; }
  RequestPtr request_;
};

TEST_F(HttpResponseHeader, StatusTextsAndTheTypesTheyForce) {
  const std::pair<int32_t, const char*> cases[] = {
      {401, "401 Unauthorised"},        {402, "402 Invalid Args"}, {501, "501 Action Failed"},
      {503, "503 Service Unavailable"}, {200, "200 OK"},           {302, "200 OK"}};
  for (const auto& [status, text] : cases) {
    Make("/v.mp4");
    EXPECT_EQ(StatusLine(status), std::string("HTTP/1.1 ") + text);
    EXPECT_EQ(ContentType(status), status > 400 ? "text/html; charset=utf-8" : "video/mp4");
  }
}

TEST_F(HttpResponseHeader, FullFormByteForByte) {
  HttpRequest& r = Make("/v.mp4");
  HttpFileCache cache = {};
  cache.modification_time = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT
  r.file_cache = &cache;
  r.content_length = 1234;
  HTTP_add_header(&r, "X-A: 1\r\n");
  EXPECT_EQ(Compose(200),
            "HTTP/1.1 200 OK\r\nContent-Type: video/mp4\r\nContent-Length: 1234\r\n"
            "Date: Sun, 06 Nov 1994 08:49:37 GMT\r\nPragma: no-cache\r\nCache-control: no-cache\r\n"
            "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nAccept-Ranges: bytes\r\n"
            "Connection: keep-alive\r\nX-A: 1\r\nEXT:\r\nServer: " +
                kBanner + "\r\n\r\n");
  std::tie(r.file_cache, r.close_connection, r.chunked) = std::tuple(nullptr, 1, 1);
  EXPECT_TRUE(Has(200, "video/mp4\r\nTransfer-Encoding: chunked\r\nDate: ") &&
              Has(200, "\r\nConnection: close\r\n") && !Has(200, "Content-Length"));
}

TEST_F(HttpResponseHeader, ShortFormsGoOutAsHttp10) {
  HttpRequest& r = Make("/live");
  r.content_length = -1;
  r.chunked = 1;
  HTTP_add_header(&r, "X-A: 1\r\n");
  EXPECT_EQ(Compose(200),
            "HTTP/1.0 200 OK\r\nContent-Type: video/mp4\r\nConnection: close\r\n"
            "Transfer-Encoding: chunked\r\nX-A: 1\r\n\r\n");
  // The length handlers give for endless streams is unknown for DLNA clients only.
  Make("/live").content_length = 9999999999999999LL;
  EXPECT_TRUE(Has(200, "Content-Length: 9999999999999999\r\n"));
  EXPECT_EQ(request_->close_connection, 0);
  HttpRequest& dlna = Make("/live");
  std::tie(dlna.content_length, dlna.dlna_version) = std::tuple(9999999999999999LL, 15);
  EXPECT_EQ(Compose(200),
            "HTTP/1.0 200 OK\r\nContent-Type: video/mp4\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(std::make_pair(dlna.content_length, dlna.close_connection),
            std::make_pair(int64_t{-1}, 1));
  // Redsonic clients that name themselves get their own short form.
  HttpRequest& red = Make("/a.mp3", "Host: h\r\nUser-Agent: redsonic\r\n");
  red.content_length = 3;
  EXPECT_FALSE(Has(200, "Accept-Range:"));
  g_quirks.redsonic = 1;
  EXPECT_EQ(Compose(200),
            "HTTP/1.0 200 OK\r\nContent-Type: video/mp4\r\nContent-Length: 3\r\n"
            "Accept-Range: 0 bytes\r\nUser-Agent: redsonic\r\n\r\n");
  Make("/a.mp3");
  EXPECT_FALSE(Has(200, "Accept-Range:"));
}

TEST_F(HttpResponseHeader, ClientsThatNeedHttp10) {
  HttpRequest& r = Make("/v.mp4");
  r.http_version = 10;
  EXPECT_EQ(StatusLine(200), "HTTP/1.1 200 OK");
  g_quirks.needs_1_0 = 1;
  EXPECT_EQ(StatusLine(200) + "|" + StatusLine(416), "HTTP/1.0 200 OK|HTTP/1.0 404 Not Found");
  EXPECT_EQ(r.close_connection, 1);  // they cannot take 416 either
  r.http_version = 11;
  r.close_connection = 0;
  EXPECT_EQ(StatusLine(416), "HTTP/1.1 416 Requested Range Not Satisfiable");
  EXPECT_EQ(r.close_connection, 0);
}

TEST_F(HttpResponseHeader, RangeAnswers) {
  HttpRequest& r = Make("/v.mp4", "Host: h\r\nRange: bytes=10-19\r\n");
  std::tie(r.range_start, r.range_end, r.total_size) = std::tuple(10, 19, 100);
  EXPECT_TRUE(Has(206, "HTTP/1.1 206 Partial Content\r\n") &&
              Has(206, "keep-alive\r\nContent-Range: bytes 10-19/100\r\nEXT:"));
  // A time-seek answer is a 200 with a TimeSeekRange line; milliseconds unpadded (1005 ms is
  // 001.5), an open end is the duration.
  HttpRequest& t = Make("/v.mp4", "Host: h\r\nTimeSeekRange.dlna.org: npt=1.005-\r\n");
  std::tie(t.requested_range_start, t.requested_range_end, t.duration_ms, t.range_end,
           t.total_size) = std::tuple(1005, -1, 10000, 999, 1000);
  EXPECT_EQ(StatusLine(206), "HTTP/1.1 200 OK");
  EXPECT_TRUE(Has(206, "\r\nTimeSeekRange.dlna.org: npt=001.5-010.0/010.0 bytes=0-999/1000\r\n"));
  t.requested_range_end = 2500;
  EXPECT_TRUE(Has(206, "npt=001.5-002.500/010.0 bytes"));
  std::tie(t.range_is_clock_time, t.requested_range_start, t.duration_ms) =
      std::tuple(1, 3723004, 7200000);
  EXPECT_TRUE(Has(206, "npt=1:2:3.004-0:0:2.500/2:0:0.000 bytes=0-999/1000\r\n"));
  t.duration_ms = 0;  // no duration, no range line at all
  EXPECT_FALSE(Has(206, "TimeSeekRange.dlna.org: ") || Has(206, "Content-Range"));
  // A time-seek head that also has a Range header is answered with bytes.
  Make("/v.mp4", "Host: h\r\nTimeSeekRange.dlna.org: npt=1-\r\nRange: bytes=0-\r\n");
  EXPECT_TRUE(Has(206, "Content-Range: bytes 0-0/0\r\n"));
}

TEST_F(HttpResponseHeader, DlnaChecksTurnOkIntoErrors) {
  const std::string interactive_only = "/m/1-FLAGS00d00000/v.mpg";
  const std::tuple<std::string, std::string, uint32_t, int32_t> cases[] = {
      {interactive_only, "Host: h\r\ntransferMode.dlna.org: streaming\r\n", 0, 406},
      {"/m/1-FLAGS01700000/v", "Host: h\r\ntransferMode.dlna.org: Interactive\r\n", 0, 406},
      {"/m/1-FLAGS01700000/v", "Host: h\r\ntransferMode.dlna.org: interactive\r\n", 0, 200},
      // DLNA clients must send Host unless asking for captions; "no DLNA" counts as a version.
      {"/v", "Accept: */*\r\n", 0, 200},
      {"/v", "Accept: */*\r\n", 15, 400},
      {"/v", "Accept: */*\r\n", 0xFFFFFFFFu, 400},
      {"/v", "getCaptionInfo.sec: 1\r\n", 15, 200},
      {"/v", "Host: h\r\ngetContentFeatures.dlna.org: 0\r\n", 0, 400},
      {"/v", "Host: h\r\nGETCONTENTFEATURES.DLNA.ORG:1\r\n", 0, 200},
      {interactive_only, "Host: h\r\nPlaySpeed.dlna.org: speed=2\r\n", 0, 400},
      {"/v", "Host: h\r\nX-F: DLNA.ORG_FLAG=1\r\n", 0, 400},
      {"/v", "Host: h\r\nX-F: DLNA.ORG_FLAG=1\r\ntransferMode.dlna.org: Streaming\r\n", 0, 200},
  };
  for (const auto& [url, lines, dlna_version, status] : cases) {
    Make(url, lines);
    g_quirks.dlna_version = dlna_version;
    EXPECT_EQ(StatusLine(200).substr(9, 3), std::to_string(status)) << url << lines;
    Make(url, lines);
    EXPECT_EQ(StatusLine(206), "HTTP/1.1 206 Partial Content");  // only a 200 is checked
  }
  HttpRequest& awox = Make("/x/com.awox.transcode/v.mp4");
  EXPECT_TRUE(Has(200,
                  "HTTP/1.1 404 Not Found\r\nContent-Type: text/html; charset=utf-8\r\n"
                  "Content-Length: 0\r\n"));
  EXPECT_EQ(awox.content_length, 0);
}

TEST_F(HttpResponseHeader, ContentFeaturesFromTheUrl) {
  const std::pair<const char*, const char*> cases[] = {
      {"/m/1-PNMP3-OP01-CI0-FLAGS01700000/a.mp3",
       "DLNA.ORG_PN=MP3;DLNA.ORG_OP=01;DLNA.ORG_CI=0;DLNA.ORG_FLAGS=01700000"
       "000000000000000000000000"},
      {"/m/NON-DLNA-PNMP3/a.mp3", "*"},
      {"/m/a.mp3", "*"},
      {"/m/1-PNAVC_TS-OP00/v.ts", "DLNA.ORG_PN=AVC_TS"},  // OP00 is left out...
      {"/m/1-OP00/v.ts", ""},                             // ...but counts as found
      {"/m/1-OP11/v.ts", ";DLNA.ORG_OP=11"},              // without PN, a leading ';'
      {"/m-PNJPEG_SM/1-x", "DLNA.ORG_PN=JPEG_SM"},        // cut at '-', then at '/'
  };
  for (const auto& [url, value] : cases) {
    Make(url, "Host: h\r\ngetContentFeatures.dlna.org: 1\r\n");
    Compose(200);
    EXPECT_EQ(Extra().substr(0, Extra().find("\r\n") + 2),
              std::string("contentFeatures.dlna.org: ") + value + "\r\n");
  }
  Make("/m/1-PNMP3/a.mp3");
  Compose(200);
  EXPECT_EQ(Extra(), "");
  Make("/m/1-PN" + std::string(400, 'P') + "/a", "Host: h\r\ngetContentFeatures.dlna.org: 1\r\n");
  Compose(200);
  EXPECT_EQ(Extra().size(), 255u);  // the line is built in 256 bytes
}

TEST_F(HttpResponseHeader, TransferModeIsEchoedOrDerived) {
  const std::tuple<const char*, const char*, const char*, SocketPriority> cases[] = {
      {"/v", "transferMode.dlna.org: Interactive\r\n", "Interactive", SocketPriority::kInteractive},
      {"/v", "TRANSFERMODE.DLNA.ORG:background\r\n", "Background", SocketPriority::kBackground},
      {"/v", "transferMode.dlna.org: Bulk\r\n", nullptr, SocketPriority::kNone},
      // Derived from the flags it is announced, but the socket is left alone.
      {"/m/1-FLAGS00f00000/v", "", "Interactive", SocketPriority::kNone},
      {"/m/1-FLAGS01500000/v", "", "Streaming", SocketPriority::kNone},
      {"/v", "", nullptr, SocketPriority::kNone},
  };
  for (const auto& [url, lines, mode, expected_priority] : cases) {
    Make(url, std::string("Host: h\r\n") + lines);
    SocketPriority priority = SocketPriority::kAudioVideo;
    Compose(200, &priority);
    EXPECT_EQ(Extra(), mode ? std::string("transferMode.dlna.org: ") + mode + "\r\n" : "");
    EXPECT_EQ(priority, expected_priority) << lines;
  }
  HttpRequest& r = Make("/v", "Host: h\r\ngetAvailableSeekRange.dlna.org: 1\r\n");
  Compose(200);
  EXPECT_EQ(Extra(), "");
  r.duration_ms = 12345;
  Compose(200);
  EXPECT_EQ(Extra(), "AvailableSeekRange.DLNA.ORG: 1 npt=0.000-012.345\r\n");
}

TEST_F(HttpResponseHeader, ContentTypes) {
  // PCM parameters are read right behind the words, so a '=' in between gives 0.
  Make("/a/rate44100/channels2/x.pcm").mime_type = "audio/L16";
  EXPECT_EQ(ContentType(200), "audio/L16;rate=44100;channels=2");
  Make("/a.pcm?rate=48000&channels=1").mime_type = "audio/L16";
  EXPECT_EQ(ContentType(200), "audio/L16;rate=0;channels=0");
  // DTCP content names host and port for GET and HEAD; the no-cache lines come anyway.
  HttpRequest& dtcp = Make("/a/rate8000/channels1");
  std::tie(dtcp.dtcp_protected, dtcp.mime_type) = std::tuple(1, "audio/L16");
  EXPECT_EQ(ContentType(200),
            "application/x-dtcp1;DTCP1HOST=10.0.0.2;DTCP1PORT=5555;"
            "CONTENTFORMAT=\"audio/L16\";rate=8000;channels=1");
  EXPECT_EQ(Extra(), "Pragma: no-cache\r\nCache-control: no-cache\r\n");
  dtcp.method = HTTP_METHOD_POST;
  EXPECT_EQ(ContentType(200), "audio/L16;rate=8000;channels=1");
  const std::string long_type(200, 't');
  Make("/v").mime_type = long_type.c_str();
  EXPECT_EQ(ContentType(200), long_type.substr(0, 127));
  Make("/no/type").mime_type = nullptr;
  EXPECT_EQ(ContentType(200), "application/octet-stream");
}

TEST_F(HttpResponseHeader, ExtraHeadersAndTheirHelpers) {
  HttpRequest& r = Make("/v");
  HTTP_set_server_info(&r);
  HTTP_set_no_cache(&r);
  EXPECT_EQ(Extra(), "EXT:\r\nSERVER: " + kBanner +
                         "\r\nExpires: 0\r\nPragma: no-cache\r\nCache-Control: no-cache\r\n");
  g_handler_active = true;  // handlers add after the lines composition adds itself
  Make("/v", "Host: h\r\ntransferMode.dlna.org: Streaming\r\n");
  EXPECT_TRUE(Has(200, "\r\ntransferMode.dlna.org: Streaming\r\nX-Handler: 1\r\nEXT:\r\n"));
  g_handler_active = false;
  // Bounded everywhere: the extra lines at 8191 bytes, the whole header too.
  HttpRequest& full = Make("/v");
  for (int i = 0; i < 2; ++i) HTTP_add_header(&full, std::string(5000, 'h').c_str());
  HTTP_add_header(&full, nullptr);
  HTTP_add_header(nullptr, "x");
  EXPECT_EQ(Extra().size(), 8191u);
  EXPECT_EQ(Compose(200).size(), 8191u);
  // Buffers without terminators are cut at their last byte, not read past.
  HttpRequest& raw = Make("/v");
  std::memset(raw.extra_headers, 'e', sizeof(raw.extra_headers));
  std::memset(raw.url, 'u', sizeof(raw.url));
  EXPECT_EQ(Compose(200).size(), 8191u);
}

}  // namespace
