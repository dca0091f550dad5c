// tideway-host's web face over real sockets, driven by Beast's client, and its links to the
// agent against stand-ins of the agent's log file and control socket.
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "AgentLink.h"
#include "TestEnv.h"
#include "WebServer.h"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Strings = std::vector<std::string>;

constexpr std::chrono::seconds kHang{20};  // only to catch a hang

// Lines handed over by another thread.
struct Lines {
    void Add(std::string line) {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(std::move(line));
        changed.notify_all();
    }
    Strings WaitFor(size_t count) {  // all lines, once there are `count` (or after kHang)
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, kHang, [&] { return lines.size() >= count; });
        return lines;
    }
    std::mutex mutex;
    std::condition_variable changed;
    Strings lines;
};

// A scratch folder and an I/O thread that runs until the test ends.
class IoTest : public ::testing::Test {
  protected:
    void TearDown() override {
        work_.reset();
        if (thread_.joinable())
            thread_.join();
    }
    TempRoot root_;
    const std::string dir_ = root_.path();
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
    std::thread thread_;
    Lines lines_;
};

// Runs one asynchronous operation on `io` to its end; a hang closes `socket` and is a time-out.
template <typename Start>
beast::error_code Await(asio::io_context& io, tcp::socket& socket, Start start) {
    std::optional<beast::error_code> result;
    start([&result](beast::error_code ec, auto&&...) { result = ec; });
    io.restart();
    io.run_for(kHang);
    if (result)
        return *result;
    beast::error_code ignored;
    socket.close(ignored);
    io.restart();
    io.run();
    return asio::error::timed_out;
}

tcp::endpoint Loopback(uint16_t port) {
    return {asio::ip::make_address("127.0.0.1"), port};
}

// One page: a WebSocket to /ws with the given Host and Origin headers.
class Page {
  public:
    Page(uint16_t port, const std::string& host, const std::string& origin) : ws_(io_) {
        ec_ = Await(io_, socket(), [&](auto h) { socket().async_connect(Loopback(port), h); });
        ws_.set_option(websocket::stream_base::decorator([origin](websocket::request_type& r) {
            if (!origin.empty())
                r.set(http::field::origin, origin);
        }));
        ws_.read_message_max(64 << 20);
        if (!ec_)
            ec_ = Await(io_, socket(), [&](auto h) { ws_.async_handshake(res_, host, "/ws", h); });
    }
    beast::error_code Send(const std::string& text, bool whole = true) {
        return Await(io_, socket(),
                     [&](auto h) { ws_.async_write_some(whole, asio::buffer(text), h); });
    }
    // The next message; empty with the error in ec_ when the connection ended.
    std::string Receive() {
        beast::flat_buffer buffer;
        ec_ = Await(io_, socket(), [&](auto h) { ws_.async_read(buffer, h); });
        return ec_ ? std::string() : beast::buffers_to_string(buffer.data());
    }
    tcp::socket& socket() { return ws_.next_layer().socket(); }
    asio::io_context io_;
    websocket::stream<beast::tcp_stream> ws_;
    websocket::response_type res_;
    beast::error_code ec_;
};

using Fields = std::vector<std::pair<std::string, std::string>>;

// One HTTP request on a connection of its own, with `fields` added after its Host.
http::response<http::string_body> Fetch(uint16_t port, http::verb method, const std::string& target,
                                        const std::string& host, const Fields& fields = {}) {
    asio::io_context io;
    beast::tcp_stream stream(io);
    http::request<http::empty_body> request(method, target, 11);
    request.set(http::field::host, host);
    for (const auto& [name, value] : fields)
        request.insert(name, value);
    http::response_parser<http::string_body> parser;
    parser.skip(method == http::verb::head);
    beast::flat_buffer buffer;
    beast::error_code ec =
        Await(io, stream.socket(), [&](auto h) { stream.async_connect(Loopback(port), h); });
    if (!ec)
        ec = Await(io, stream.socket(), [&](auto h) { http::async_write(stream, request, h); });
    if (!ec)
        ec = Await(io, stream.socket(),
                   [&](auto h) { http::async_read(stream, buffer, parser, h); });
    EXPECT_FALSE(ec) << target << ": " << ec.message();
    return parser.release();
}

class WebServerTest : public IoTest {
  protected:
    void SetUp() override {
        const std::string root = dir_ + "/web";
        ASSERT_EQ(system(("mkdir -p '" + root + "/sub'").c_str()), 0);
        const std::pair<const char*, const char*> files[] = {
            {"web/index.html", "<p>index</p>"},
            {"web/app.js", "let page = 1;"},
            {"web/notes.txt", "not a page"},
            {"web/sub/inner.html", "in a subfolder"},
            {"secret.html", "outside the root"}};
        for (const auto& file : files)
            std::ofstream(dir_ + "/" + file.first) << file.second;
        ASSERT_EQ(symlink("../secret.html", (root + "/leak.html").c_str()), 0);
        WebServerOptions options;
        options.port = 0;
        options.webRoot = root;
        options.agentControl = true;
        server_ = std::make_unique<WebServer>(
            io_, options, [this](std::string xml) { lines_.Add(std::move(xml)); },
            [](std::string line, WebServer::Reply reply) { reply("OK echo " + line); });
        std::string error;
        ASSERT_TRUE(server_->Listen(error)) << error;
        port_ = server_->Port();
        host_ = "127.0.0.1:" + std::to_string(port_);
        thread_ = std::thread([this] { io_.run(); });
    }
    void TearDown() override {
        if (server_)
            server_->Close();
        IoTest::TearDown();
        server_.reset();
    }
    // A page of this server's own origin, past its two "I" lines.
    std::unique_ptr<Page> OwnPage() {
        auto page = std::make_unique<Page>(port_, host_, "http://" + host_);
        EXPECT_EQ(page->Receive(), "Iagent-control=yes");
        EXPECT_EQ(page->Receive(), "Iagent-log=no");
        return page;
    }

    std::unique_ptr<WebServer> server_;
    uint16_t port_ = 0;
    std::string host_;
};

TEST_F(WebServerTest, ServesOnlyItsOwnFilesToItsOwnHost) {
    const std::string local = "localhost:" + std::to_string(port_);
    const struct {
        http::verb method;
        std::string target, host;
        unsigned status;
        std::string body;
    } cases[] = {
        {http::verb::get, "/", host_, 200, "<p>index</p>"},
        {http::verb::get, "/app.js?v=2", local, 200, "let page = 1;"},
        {http::verb::head, "/index.html", host_, 200, ""},
        {http::verb::get, "/../secret.html", host_, 404, ""},
        {http::verb::get, "/%2e%2e/secret.html", host_, 404, ""},
        {http::verb::get, "/sub/inner.html", host_, 404, ""},
        {http::verb::get, "/leak.html", host_, 404, ""},  // a link out of the root
        {http::verb::get, "/notes.txt", host_, 404, ""},  // not a type of the page
        {http::verb::get, "/missing.js", host_, 404, ""},
        {http::verb::post, "/", host_, 405, ""},
        {http::verb::get, "/", "evil.example:" + std::to_string(port_), 403, ""},
        {http::verb::get, "/", "127.0.0.1:" + std::to_string(port_ == 1 ? 2 : 1), 403, ""},
        {http::verb::get, "/", "", 403, ""},
    };
    for (const auto& c : cases) {
        const auto response = Fetch(port_, c.method, c.target, c.host);
        EXPECT_EQ(response.result_int(), c.status) << c.target << " for " << c.host;
        if (c.status == 200 && c.method == http::verb::get) {
            EXPECT_EQ(response.body(), c.body) << c.target;
        }
        if (c.method == http::verb::head) {
            EXPECT_EQ(response[http::field::content_length], "12");
            EXPECT_EQ(response[http::field::content_type], "text/html; charset=utf-8");
        }
    }
    EXPECT_EQ(Fetch(port_, http::verb::get, "/", host_, {{"X-Padding", std::string(9000, 'p')}})
                  .result_int(),
              431u);
    // A second Host or Origin field makes the request malformed, the good one first or not.
    for (const Fields& twice : {Fields{{"Host", "evil.example"}},
                                Fields{{"Origin", "http://" + host_}, {"Origin", "http://x"}}})
        EXPECT_EQ(Fetch(port_, http::verb::get, "/", host_, twice).result_int(), 400u);
}

TEST_F(WebServerTest, WebSocketOnlyFromItsOwnPage) {
    const std::string local = "localhost:" + std::to_string(port_);
    const std::string evil = "evil.example:" + std::to_string(port_);
    const struct {
        std::string host, origin;
        unsigned status;
    } cases[] = {
        {host_, "http://" + host_, 101},
        {local, "http://" + local, 101},
        {host_, "http://evil.example", 403},
        {host_, "", 403},
        {host_, "https://" + host_, 403},
        {host_, "http://" + local, 403},  // an allowed host, but not the one asked for
        {evil, "http://" + evil, 403},
    };
    for (const auto& c : cases) {
        Page page(port_, c.host, c.origin);
        EXPECT_EQ(page.res_.result_int(), c.status) << c.host << " from " << c.origin;
        EXPECT_EQ(!page.ec_, c.status == 101) << c.host << " from " << c.origin;
        if (!page.ec_) {
            EXPECT_EQ(page.Receive(), "Iagent-control=yes");
        }
    }
}

// Oversized or broken frames close only their page; events come in order, control replies go
// to the asking page only.
TEST_F(WebServerTest, FramesEventsAndRepliesReachOnlyTheirPage) {
    auto big = OwnPage();
    auto vanishing = OwnPage();
    auto steady = OwnPage();
    auto other = OwnPage();
    // The server hangs up at the frame's header: the write may fail half-way, or end and meet
    // the close frame (message too big); either way no hang and no message.
    const beast::error_code sent = big->Send("E" + std::string(10 << 20, 'x'));
    EXPECT_EQ(big->Receive(), "");
    EXPECT_NE(big->ec_, asio::error::timed_out);
    if (!sent) {
        EXPECT_EQ(big->ec_, websocket::error::closed) << big->ec_.message();
        EXPECT_EQ(big->ws_.reason().code, websocket::close_code::too_big);
    }
    vanishing->Send("E<brguiEvent id=\"half", false);  // a message that never ends
    vanishing.reset();
    const std::string largest = "E" + std::string(WebServer::kMaxFrameBytes - 1, 'y');
    EXPECT_FALSE(steady->Send(largest));
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(steady->Send("E<brguiEvent id=\"e" + std::to_string(i) + "\"/>"));
    EXPECT_FALSE(steady->Send("Cproxy 10.1.2.3 3128 Basic office"));
    EXPECT_EQ(steady->Receive(), "ROK echo proxy 10.1.2.3 3128 Basic office");
    EXPECT_FALSE(steady->Send("Cstate 1\nexit"));
    EXPECT_EQ(steady->Receive().substr(0, 5), "RERR ");
    EXPECT_FALSE(other->Send("E<brguiEvent id=\"e2\"/>"));
    EXPECT_EQ(lines_.WaitFor(4), (Strings{largest.substr(1), "<brguiEvent id=\"e0\"/>",
                                          "<brguiEvent id=\"e1\"/>", "<brguiEvent id=\"e2\"/>"}));
    // The others still hear the server, and `other` none of the replies.
    const std::string notice =
        "<brguiNotice type=\"update\"><label id=\"a\" value=\"1\"/></brguiNotice>";
    server_->PublishNotice(notice);
    EXPECT_EQ(steady->Receive(), "N" + notice);
    EXPECT_EQ(OwnPage()->Receive(), "N" + notice);
    server_->PublishStopped();
    EXPECT_EQ(other->Receive(), "N" + notice);
    EXPECT_EQ(other->Receive(), "S");
}

TEST_F(WebServerTest, TwentyPagesGetEveryNoticeInTheSameOrder) {
    std::vector<std::unique_ptr<Page>> pages;
    for (int i = 0; i < 20; ++i)
        pages.push_back(OwnPage());
    // Two module threads deliver at once; every page must see one and the same order.
    const auto notice = [](int thread, int i) {
        return "<brguiNotice type=\"update\"><label id=\"t" + std::to_string(thread) +
               "\" value=\"" + std::to_string(i) + "\"/></brguiNotice>";
    };
    auto deliver = [&](int thread) {
        for (int i = 0; i < 50; ++i)
            server_->PublishNotice(notice(thread, i));
    };
    std::thread first(deliver, 0), second(deliver, 1);
    first.join();
    second.join();
    Strings order, own[2];  // each thread's notices must keep their own order
    for (auto& page : pages) {
        Strings seen;
        for (int i = 0; i < 100; ++i)
            seen.push_back(page->Receive());
        if (order.empty())
            order = seen;
        EXPECT_EQ(seen, order);
    }
    for (const std::string& message : order)
        own[message.find("id=\"t1\"") != std::string::npos].push_back(message.substr(1));
    for (int t = 0; t < 2; ++t)
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(own[t].at(i), notice(t, i));
}

TEST_F(WebServerTest, LatePageGetsTheCurrentState) {
    const auto update = [](const std::string& body, const std::string& root = "") {
        return "<brguiNotice module=\"m\" type=\"update\" timestamp=\"t\"" + root + ">" + body +
               "</brguiNotice>";
    };
    const auto popup = [](const std::string& id, const std::string& rest) {
        return "<brguiNotice module=\"m\" type=\"popup\"><popup timestamp=\"t\" id=\"" + id +
               "\" " + rest + "><title value=\"x\"/></popup></brguiNotice>";
    };
    // The same row id stands in both boxes: a row of one does not replace the other's.
    const auto row = [&](const std::string& box, const std::string& value) {
        return update("<outlinelistbox id=\"" + box + "><listgroup id=\"g\"><listrow " +
                      "id=\"id_cur_tower\"><listrowcolumn label=\"" + value +
                      "\"/></listrow></listgroup></outlinelistbox>");
    };
    const std::string stats = "stat_outlinelistbox\" updaterows=\"true\"";
    const std::string setup = "<brguiNotice module=\"m\" type=\"setup\"></brguiNotice>";
    // Published, and whether the late page gets it back.
    std::vector<std::pair<std::string, bool>> published = {
        {setup, true},
        {update("<label id=\"a\" value=\"1\"/>", " state=\"Error\""), false},
        {update("<label id=\"a\" value=\"2\"/>", " state=\"Good\""), true},
        {update("<label id=\"b\" hidden=\"true\"/>"), true},
        {update("<label id=\"b\" value=\"x\"/>"), true},
        {row(stats, "old"), false},
        {row("overview_stat_outlinelistbox\"", "o"), true},
        {row(stats, "new"), true},
        {popup("credential_dialog", "type=\"custom\""), false},
        {popup("error_popup", "type=\"error\""), false},  // live pages only
        {popup("credential_dialog", "dispose=\"true\""), false}};
    for (int i = 0; i < 105; ++i)
        published.push_back(
            {update("<log messagehistory=\"" + std::to_string(i) + "\"/>"), i >= 5});
    published.push_back({"not a notice at all", false});
    auto early = OwnPage();
    for (const auto& notice : published)
        server_->PublishNotice(notice.first);
    for (int i = 0; i < 250; ++i)
        server_->PublishAgentLine("RECV line " + std::to_string(i));
    for (const auto& notice : published)  // live: everything, as it came
        ASSERT_EQ(early->Receive(), "N" + notice.first);
    auto late = OwnPage();
    for (const auto& notice : published)
        EXPECT_TRUE(!notice.second || late->Receive() == "N" + notice.first) << notice.first;
    for (int i = 50; i < 250; ++i)
        EXPECT_EQ(late->Receive(), "ARECV line " + std::to_string(i));
    // A new setup starts the page over: nothing from before it is replayed.
    // (Its text is UTF-8 followed by ten bytes that are not: an overlong, a surrogate, one past
    // U+10FFFF; each goes as U+FFFD.)
    const std::string good = "\xC3\xA9\xF0\x9F\x98\x80", fffd = "\xEF\xBF\xBD";
    const std::string c1 =
        update("<label id=\"c\" value=\"" + good + "\xE9\xED\xA0\x80\xF4\x90\x80\x80\xC0\xAF\"/>");
    server_->PublishNotice(setup);
    server_->PublishNotice(c1);
    server_->PublishAgentLine("RECV last");
    EXPECT_EQ(late->Receive(), "N" + setup);  // the late page is now live too
    std::string replaced;
    for (int i = 0; i < 10; ++i)
        replaced += fffd;
    const std::string sent = "N" + update("<label id=\"c\" value=\"" + good + replaced + "\"/>");
    auto latest = OwnPage();
    for (const std::string& message : {"N" + setup, sent, std::string("ARECV line 51")})
        EXPECT_EQ(latest->Receive(), message);
}

class AgentLinkTest : public IoTest {
  protected:
    void SetUp() override {
        thread_ = std::thread([this] { io_.run(); });
    }
    void TearDown() override {  // the links' timers would keep the I/O thread running
        asio::post(io_, [this] {
            if (tail_)
                tail_->Close();
            if (control_)
                control_->Close();
        });
        IoTest::TearDown();
    }
    std::shared_ptr<AgentLogTail> tail_;
    std::shared_ptr<AgentControl> control_;
};

TEST_F(AgentLinkTest, LogTailFollowsGrowthTruncationAndReplacement) {
    const std::string path = dir_ + "/agent.log";
    auto append = [&path](const std::string& text) { std::ofstream(path, std::ios::app) << text; };
    auto numbered = [](int i) {
        return std::to_string(i) + std::string(98 - std::to_string(i).size(), ' ');
    };
    // More than the tail starts with: it begins on a whole line, near the end.
    std::string start;
    for (int i = 0; i < 5000; ++i)
        start += numbered(i) + "\n";
    append(start + "one\ntwo\npart");
    tail_ = std::make_shared<AgentLogTail>(io_, path, [this](std::string l) { lines_.Add(l); });
    asio::post(io_, [tail = tail_] { tail->Start(); });
    // The whole numbered lines within the window that also holds "one\ntwo\npart".
    Strings expected;
    for (int i = 5000 - int(AgentLogTail::kStartBytes - 12) / 99; i < 5000; ++i)
        expected.push_back(numbered(i));
    auto expect = [&](const Strings& more) {
        expected.insert(expected.end(), more.begin(), more.end());
        EXPECT_EQ(lines_.WaitFor(expected.size()), expected);
    };
    expect({"one", "two"});
    append("ial\r\nthree\n");
    expect({"partial", "three"});
    std::ofstream(path, std::ios::trunc) << "after truncation\n";
    expect({"after truncation"});
    // A new file under the name, already longer than what was read of the old one.
    ASSERT_EQ(rename(path.c_str(), (path + ".1").c_str()), 0);
    append(std::string(40, 'n') + "\nsecond\n");
    expect({std::string(40, 'n'), "second"});
    // Truncated and written past the old end again between two polls.
    std::ofstream(path, std::ios::trunc) << std::string(80, 'r') << "\nrewritten\n";
    expect({std::string(80, 'r'), "rewritten"});
}

TEST_F(AgentLinkTest, ControlRepliesInOrderAndReconnects) {
    // Stands in for the simulator's control socket, on this thread: serve(n) takes the next
    // connection and answers "OK <line>" to n lines on it; accept and read give up after kHang.
    const std::string path = dir_ + "/control";
    sockaddr_un address{AF_UNIX, {}};
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{kHang.count(), 0};  // accepted connections inherit it
    ASSERT_EQ(setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    const auto serve = [listener](int lines) {
        const int fd = accept(listener, nullptr, nullptr);
        std::string line;
        for (char c; fd >= 0 && lines > 0 && read(fd, &c, 1) == 1;) {
            if (c != '\n') {
                line += c;
                continue;
            }
            const std::string reply = "OK " + line + "\n";
            EXPECT_EQ(write(fd, reply.data(), reply.size()), ssize_t(reply.size()));
            line.clear();
            --lines;
        }
        return fd;
    };
    control_ = std::make_shared<AgentControl>(io_, path);
    const auto ask = [this](const std::string& line) {
        asio::post(io_, [this, line] {
            control_->Ask(line, [this, line](const std::string& reply) {
                lines_.Add(line + " -> " + reply);
            });
        });
    };
    ask("state 1");
    ask("bye");
    close(serve(2));  // then hangs up, as a simulator that restarts does
    EXPECT_EQ(lines_.WaitFor(2), (Strings{"state 1 -> OK state 1", "bye -> OK bye"}));
    ask("proxy");  // the kept connection is dead: the line goes on a new one
    const int kept = serve(1);
    EXPECT_EQ(lines_.WaitFor(3).back(), "proxy -> OK proxy");
    close(listener);
    unlink(path.c_str());
    close(kept);
    ask("drop");
    const std::string last = lines_.WaitFor(4).back();
    EXPECT_EQ(last.rfind("drop -> ERR agent control " + path + ": ", 0), 0u) << last;
}

}  // namespace
