// SPDX-License-Identifier: Apache-2.0
// SUBSCRIBE, renewal and UNSUBSCRIBE of the example server on the wire, and the events its
// subscribers' callbacks receive.
#include <regex>

#include "wire_fixture.h"

namespace mediaserver::test {
namespace {

constexpr char kCdUrl[] = "/ContentDirectory/Event";
constexpr char kCmUrl[] = "/ConnectionManager/Event";

std::string PropertySet(const std::vector<std::pair<std::string, std::string>>& variables) {
  std::string body =
      "<?xml version=\"1.0\"?><e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";
  for (const auto& [name, value] : variables) {
    body += "<e:property><" + name + ">" + value + "</" + name + "></e:property>";
  }
  return body + "</e:propertyset>";
}

// A port on 127.0.0.1 where nothing listens (connections are refused at once).
int ClosedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = tw::test::LoopbackAddress(0);
  socklen_t length = sizeof(address);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

class Eventing : public MediaServerWire {
 protected:
  std::string SubscribeLines(const std::string& callback, const std::string& extra = "") const {
    return "CALLBACK: <" + callback + ">\r\nNT: upnp:event\r\n" + extra;
  }
  tw::test::HttpResponse Subscribe(const char* url, const std::string& callback,
                                   const std::string& extra = "") {
    return Exchange(port_, Request("SUBSCRIBE", url, SubscribeLines(callback, extra)));
  }
  tw::test::HttpResponse Call(const char* method, const char* url, const std::string& lines) {
    return Exchange(port_, Request(method, url, lines));
  }
};

TEST_F(Eventing, AnswerFirstThenInitialEventThenChangesInSequence) {
  CallbackListener listener;
  RawClient subscriber;
  ASSERT_TRUE(subscriber.Connect(port_));
  // What had reached the subscriber when its callback was first called.
  std::atomic<size_t> answer_bytes_before_event{0};
  listener.OnArrival([&] { answer_bytes_before_event = subscriber.Waiting(); });
  ASSERT_TRUE(subscriber.Send(
      Request("SUBSCRIBE", kCdUrl, SubscribeLines(listener.Url("/cb/cd"), "USER-AGENT: t\r\n"))));
  ASSERT_TRUE(listener.WaitFor(1));
  const tw::test::HttpResponse answer = subscriber.Read();
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer_bytes_before_event.load(), answer.head.size()) << "event before the answer";
  const std::string sid = HeaderValue(answer.head, "SID");
  EXPECT_TRUE(std::regex_match(
      sid, std::regex("uuid:[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}")))
      << sid;
  EXPECT_EQ(HeaderValue(answer.head, "TIMEOUT"), "Second-1800");

  const std::string first_id = std::to_string(SystemUpdateId());
  const Notification initial = listener.Received()[0];
  EXPECT_EQ(initial.RequestLine(), "NOTIFY /cb/cd HTTP/1.1");
  const std::vector<std::string> fields = {"HOST", "CONTENT-TYPE", "NT", "NTS", "SID", "SEQ"};
  std::vector<std::string> got;
  for (const std::string& name : fields) got.push_back(initial.Header(name));
  EXPECT_THAT(got, testing::ElementsAre("127.0.0.1:" + std::to_string(listener.port()),
                                        "text/xml; charset=\"utf-8\"", "upnp:event",
                                        "upnp:propchange", sid, "0"));
  EXPECT_EQ(
      initial.body,
      PropertySet({{"SystemUpdateID", first_id}, {"ContainerUpdateIDs", ""}, {"TransferIDs", ""}}));
  EXPECT_EQ(initial.Header("CONTENT-LENGTH"), std::to_string(initial.body.size()));

  // A change of the shared tree: the next event carries the new ID under the next SEQ.
  ASSERT_FALSE(CheckForChanges());  // the first look only takes the tree's signature
  std::filesystem::create_directory(share_ + "/New");
  ASSERT_TRUE(CheckForChanges());
  const std::string second_id = std::to_string(SystemUpdateId());
  ASSERT_NE(second_id, first_id);
  NotifyContentChanged();
  NotifyContentChanged();
  ASSERT_TRUE(listener.WaitFor(3));
  const std::vector<Notification> all = listener.Received();
  EXPECT_EQ(all[1].Header("SEQ") + "," + all[2].Header("SEQ"), "1,2");
  EXPECT_EQ(all[1].Header("SID"), sid);
  EXPECT_EQ(all[1].body, PropertySet({{"SystemUpdateID", second_id}, {"ContainerUpdateIDs", ""}}));
}

TEST_F(Eventing, ConnectionManagerInitialEventAndNoContentEvents) {
  CallbackListener listener;
  // The first usable URL of the list is taken: not the FTP one, not a host name.
  const auto answer = Subscribe(kCmUrl, "ftp://127.0.0.1/x><http://localhost/y><" +
                                            listener.Url("") + "><" + listener.Url("/second"));
  ASSERT_EQ(answer.status, 200);
  ASSERT_TRUE(listener.WaitFor(1));
  const Notification initial = listener.Received()[0];
  EXPECT_EQ(initial.RequestLine(), "NOTIFY / HTTP/1.1");
  EXPECT_EQ(initial.Header("SEQ"), "0");
  EXPECT_EQ(initial.body, PropertySet({{"SourceProtocolInfo", XmlEscape(SourceProtocolInfo())},
                                       {"SinkProtocolInfo", ""},
                                       {"CurrentConnectionIDs", "0"}}));
  // Content changes go to ContentDirectory subscribers only; a CD subscriber proves the event
  // went out before the CM listener is checked.
  CallbackListener cd;
  ASSERT_EQ(Subscribe(kCdUrl, cd.Url("/")).status, 200);
  ASSERT_TRUE(cd.WaitFor(1));
  NotifyContentChanged();
  ASSERT_TRUE(cd.WaitFor(2));
  EXPECT_EQ(listener.Received().size(), 1u);
}

TEST_F(Eventing, TimeoutsAreKeptWithinBounds) {
  CallbackListener listener;
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"", "Second-1800"},
      {"TIMEOUT: Second-30\r\n", "Second-60"},
      {"TIMEOUT: Second-300\r\n", "Second-300"},
      {"TIMEOUT: second-90\r\n", "Second-90"},
      {"TIMEOUT: Second-5000\r\n", "Second-1800"},
      {"TIMEOUT: Second-infinite\r\n", "Second-1800"},
      {"TIMEOUT: Second-99999999999999\r\n", "Second-1800"},
      {"TIMEOUT: soon\r\n", "Second-1800"},
  };
  std::string got, want;
  for (const auto& [line, expected] : rows) {
    const auto answer = Subscribe(kCdUrl, listener.Url("/"), line);
    got += line + " -> " + HeaderValue(answer.head, "TIMEOUT") + "\n";
    want += line + " -> " + expected + "\n";
  }
  EXPECT_EQ(got, want);
}

TEST_F(Eventing, RenewalKeepsTheSubscriptionAndSendsNoNewInitialEvent) {
  CallbackListener listener;
  const auto first = Subscribe(kCdUrl, listener.Url("/r"), "TIMEOUT: Second-100\r\n");
  const std::string sid = HeaderValue(first.head, "SID");
  ASSERT_TRUE(listener.WaitFor(1));
  const auto renewed = Call("SUBSCRIBE", kCdUrl, "SID: " + sid + "\r\nTIMEOUT: Second-200\r\n");
  EXPECT_EQ(renewed.status, 200);
  EXPECT_EQ(HeaderValue(renewed.head, "SID"), sid);
  EXPECT_EQ(HeaderValue(renewed.head, "TIMEOUT"), "Second-200");
  // The next event is SEQ 1 to the same callback: no second initial event came in between.
  NotifyContentChanged();
  ASSERT_TRUE(listener.WaitFor(2));
  const std::vector<Notification> all = listener.Received();
  EXPECT_EQ(all[1].Header("SEQ"), "1");
  EXPECT_EQ(all[1].Header("SID"), sid);
}

TEST_F(Eventing, UnsubscribedCallbackGetsNoMoreEvents) {
  CallbackListener gone, staying;
  const std::string sid = HeaderValue(Subscribe(kCdUrl, gone.Url("/g")).head, "SID");
  ASSERT_EQ(Subscribe(kCdUrl, staying.Url("/s")).status, 200);
  ASSERT_TRUE(gone.WaitFor(1) && staying.WaitFor(1));
  EXPECT_EQ(Call("UNSUBSCRIBE", kCdUrl, "SID: " + sid + "\r\n").status, 200);
  NotifyContentChanged();
  ASSERT_TRUE(staying.WaitFor(2));  // one sender in order: the other event would be out by now
  EXPECT_EQ(gone.Received().size(), 1u);
  // A renewal of the ended subscription is refused like an unknown one.
  EXPECT_EQ(Call("SUBSCRIBE", kCdUrl, "SID: " + sid + "\r\n").status, 412);
}

TEST_F(Eventing, MalformedRequestsAreRefused) {
  CallbackListener listener;
  const std::string cd_sid = HeaderValue(Subscribe(kCdUrl, listener.Url("/")).head, "SID");
  const std::string callback = "CALLBACK: <" + listener.Url("/") + ">\r\n";
  struct Row {
    const char* method;
    const char* url;
    std::string lines;
    int status;
  };
  const std::vector<Row> rows = {
      {"SUBSCRIBE", kCdUrl, "", 412},
      {"SUBSCRIBE", kCdUrl, callback, 412},
      {"SUBSCRIBE", kCdUrl, "NT: upnp:event\r\n", 412},
      {"SUBSCRIBE", kCdUrl, callback + "NT: upnp:other\r\n", 412},
      {"SUBSCRIBE", kCdUrl, "CALLBACK: " + listener.Url("/") + "\r\nNT: upnp:event\r\n", 412},
      {"SUBSCRIBE", kCdUrl, "CALLBACK: <http://localhost/>\r\nNT: upnp:event\r\n", 412},
      {"SUBSCRIBE", kCdUrl, "CALLBACK: <http://127.0.0.1:99999/>\r\nNT: upnp:event\r\n", 412},
      {"SUBSCRIBE", kCdUrl, "SID: uuid:00000000-0000-4000-8000-000000000000\r\n", 412},
      {"SUBSCRIBE", kCmUrl, "SID: " + cd_sid + "\r\n", 412},  // another service's
      {"SUBSCRIBE", kCdUrl, "SID: " + cd_sid + "\r\n" + callback, 400},
      {"SUBSCRIBE", kCdUrl, "SID: " + cd_sid + "\r\nNT: upnp:event\r\n", 400},
      {"UNSUBSCRIBE", kCdUrl, "", 412},
      {"UNSUBSCRIBE", kCdUrl, "SID: uuid:00000000-0000-4000-8000-000000000000\r\n", 412},
      {"UNSUBSCRIBE", kCmUrl, "SID: " + cd_sid + "\r\n", 412},
      {"UNSUBSCRIBE", kCdUrl, "SID: " + cd_sid + "\r\n" + callback, 400},
      {"UNSUBSCRIBE", kCdUrl, "SID: " + cd_sid + "\r\n", 200},
      {"UNSUBSCRIBE", kCdUrl, "SID: " + cd_sid + "\r\n", 412},  // ended just before
  };
  std::string got, want;
  for (const Row& row : rows) {
    const std::string label = std::string(row.method) + " " + row.url + " [" + row.lines + "] ";
    got += label + std::to_string(Call(row.method, row.url, row.lines).status) + "\n";
    want += label + std::to_string(row.status) + "\n";
  }
  EXPECT_EQ(got, want);
}

TEST_F(Eventing, SubscriptionTableIsBounded) {
  const std::string refused = "http://127.0.0.1:" + std::to_string(ClosedPort()) + "/";
  std::vector<std::pair<std::string, const char*>> taken;  // SID and its service's URL
  int refusals = 0;
  for (int i = 0; i < 70; ++i) {
    const char* url = i % 2 == 0 ? kCdUrl : kCmUrl;
    const auto answer = Subscribe(url, refused);
    if (answer.status == 200) taken.emplace_back(HeaderValue(answer.head, "SID"), url);
    if (answer.status == 503) ++refusals;
  }
  EXPECT_EQ(taken.size(), 64u);
  EXPECT_EQ(refusals, 6);
  // Every SID is its own, and a place freed is taken again.
  std::vector<std::string> sids;
  for (const auto& entry : taken) sids.push_back(entry.first);
  std::sort(sids.begin(), sids.end());
  EXPECT_EQ(std::unique(sids.begin(), sids.end()), sids.end());
  ASSERT_EQ(Call("UNSUBSCRIBE", taken[5].second, "SID: " + taken[5].first + "\r\n").status, 200);
  EXPECT_EQ(Subscribe(kCdUrl, refused).status, 200);
}

TEST_F(Eventing, SilentSubscriberBlocksNeitherRequestsNorStop) {
  // A callback that accepts connections (the kernel does) but never reads or answers.
  const int mute = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = tw::test::LoopbackAddress(0);
  socklen_t length = sizeof(address);
  ASSERT_EQ(bind(mute, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(mute, 8), 0);
  getsockname(mute, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string silent = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";

  ASSERT_EQ(Subscribe(kCdUrl, silent).status, 200);
  CallbackListener listener;
  const auto before = Clock::now();
  ASSERT_EQ(Subscribe(kCdUrl, listener.Url("/")).status, 200);
  const auto answer_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - before).count();
  EXPECT_LT(answer_ms, 500) << "the answer waited for the silent subscriber";
  // The sender gives up on the silent one and goes on with the next event.
  EXPECT_TRUE(listener.WaitFor(1, 5000));

  // Stopping while the sender waits on the silent subscriber again.
  NotifyContentChanged();
  ASSERT_TRUE(listener.WaitFor(2, 5000));  // the order is silent, listener: both were tried
  NotifyContentChanged();
  const auto stop_start = Clock::now();
  StopEventing();
  const auto stop_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - stop_start).count();
  EXPECT_LT(stop_ms, 1500);
  // Nothing is sent after the stop, and new subscriptions are refused.
  EXPECT_EQ(Subscribe(kCdUrl, listener.Url("/")).status, 503);
  EXPECT_FALSE(listener.WaitFor(3, 300));
  close(mute);
}

}  // namespace
}  // namespace mediaserver::test
