// The web face's server in-process, driven by Beast's own client: what it serves and to whom,
// what it does with oversized and broken frames, and that every page, early or late, sees the
// notices it must see. The test is the notice source; no module and no agent are involved.
#include "WebServer.h"

#include <stdlib.h>
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
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

// Only to catch a hang: no step of these tests takes more than a fraction of it.
constexpr std::chrono::seconds kHang{20};

// Runs one asynchronous operation on `io` to its end. A hang (the operation not done within
// kHang) closes `socket` and counts as a time-out.
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

const tcp::endpoint Loopback(uint16_t port) {
    return tcp::endpoint(asio::ip::make_address("127.0.0.1"), port);
}

// One page: a WebSocket to /ws with the given Host and Origin headers.
class Page {
  public:
    Page(uint16_t port, const std::string& host, const std::string& origin) : ws_(io_) {
        ec_ = Await(io_, socket(), [&](auto h) { socket().async_connect(Loopback(port), h); });
        if (!origin.empty()) {
            ws_.set_option(
                websocket::stream_base::decorator([origin](websocket::request_type& request) {
                    request.set(http::field::origin, origin);
                }));
        }
        ws_.read_message_max(64 << 20);
        if (!ec_)
            ec_ = Await(io_, socket(),
                        [&](auto h) { ws_.async_handshake(response_, host, "/ws", h); });
    }
    ~Page() { Vanish(); }

    unsigned Status() const { return response_.result_int(); }
    bool Open() const { return !ec_; }

    beast::error_code Send(const std::string& text) {
        return Await(io_, socket(), [&](auto h) { ws_.async_write(asio::buffer(text), h); });
    }
    // The next message; empty with the error in error() when the connection ended.
    std::string Receive() {
        beast::flat_buffer buffer;
        ec_ = Await(io_, socket(), [&](auto h) { ws_.async_read(buffer, h); });
        return ec_ ? std::string() : beast::buffers_to_string(buffer.data());
    }
    // The first frame of a message that never ends.
    void SendHalf(const std::string& text) {
        Await(io_, socket(), [&](auto h) { ws_.async_write_some(false, asio::buffer(text), h); });
    }
    void Vanish() {
        beast::error_code ignored;
        socket().close(ignored);
    }
    const beast::error_code& error() const { return ec_; }
    websocket::close_code CloseCode() const {
        return static_cast<websocket::close_code>(ws_.reason().code);
    }

  private:
    tcp::socket& socket() { return ws_.next_layer().socket(); }

    asio::io_context io_;
    websocket::stream<beast::tcp_stream> ws_;
    websocket::response_type response_;
    beast::error_code ec_;
};

// One HTTP request on a connection of its own, padded with a header of `padding` bytes.
http::response<http::string_body> Fetch(uint16_t port, http::verb method, const std::string& target,
                                        const std::string& host, size_t padding = 0) {
    asio::io_context io;
    beast::tcp_stream stream(io);
    http::request<http::empty_body> request(method, target, 11);
    request.set(http::field::host, host);
    if (padding != 0)
        request.set("X-Padding", std::string(padding, 'p'));
    http::response_parser<http::string_body> parser;
    parser.skip(method == http::verb::head);
    beast::flat_buffer buffer;
    tcp::socket& socket = stream.socket();
    beast::error_code ec =
        Await(io, socket, [&](auto h) { stream.async_connect(Loopback(port), h); });
    if (!ec)
        ec = Await(io, socket, [&](auto h) { http::async_write(stream, request, h); });
    if (!ec)
        ec = Await(io, socket, [&](auto h) { http::async_read(stream, buffer, parser, h); });
    EXPECT_FALSE(ec) << target << ": " << ec.message();
    return parser.release();
}

class WebServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/tideway-web-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        const std::string root = dir_ + "/web";
        ASSERT_EQ(system(("mkdir -p '" + root + "/sub'").c_str()), 0);
        Write(root + "/index.html", "<p>index</p>");
        Write(root + "/app.js", "let page = 1;");
        Write(root + "/notes.txt", "not a page file");
        Write(root + "/sub/inner.html", "in a subfolder");
        Write(dir_ + "/secret.html", "outside the root");
        ASSERT_EQ(symlink("../secret.html", (root + "/leak.html").c_str()), 0);

        WebServerOptions options;
        options.port = 0;
        options.webRoot = root;
        options.agentControl = true;
        server_ = std::make_unique<WebServer>(
            io_, options,
            [this](std::string xml) {
                std::lock_guard<std::mutex> lock(mutex_);
                events_.push_back(std::move(xml));
                changed_.notify_all();
            },
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
        work_.reset();
        if (thread_.joinable())
            thread_.join();
        server_.reset();
        if (!dir_.empty()) {
            EXPECT_EQ(system(("rm -rf '" + dir_ + "'").c_str()), 0);
        }
    }

    static void Write(const std::string& path, const std::string& text) {
        std::ofstream(path) << text;
    }

    // A page of this server's own origin, past its two "I" lines.
    std::unique_ptr<Page> OwnPage() {
        auto page = std::make_unique<Page>(port_, host_, "http://" + host_);
        EXPECT_EQ(page->Receive(), "Iagent-control=yes");
        EXPECT_EQ(page->Receive(), "Iagent-log=no");
        return page;
    }

    bool WaitForEvents(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kHang, [&] { return events_.size() >= count; });
    }

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
    std::unique_ptr<WebServer> server_;
    std::thread thread_;
    std::string dir_;
    uint16_t port_ = 0;
    std::string host_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;  // guarded by mutex_
};

TEST_F(WebServerTest, ServesOnlyItsOwnFilesToItsOwnHost) {
    const std::string local = "localhost:" + std::to_string(port_);
    struct Case {
        http::verb method;
        std::string target;
        std::string host;
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
    for (const Case& c : cases) {
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
    EXPECT_EQ(Fetch(port_, http::verb::get, "/", host_, 9000).result_int(), 431u);
}

TEST_F(WebServerTest, WebSocketOnlyFromItsOwnPage) {
    const std::string local = "localhost:" + std::to_string(port_);
    struct Case {
        std::string host;
        std::string origin;
        unsigned status;
    } cases[] = {
        {host_, "http://" + host_, 101},
        {local, "http://" + local, 101},
        {host_, "http://evil.example", 403},
        {host_, "", 403},
        {host_, "https://" + host_, 403},
        {host_, "http://" + local, 403},  // an allowed host, but not the one asked for
        {"evil.example:" + std::to_string(port_), "http://evil.example:" + std::to_string(port_),
         403},
    };
    for (const Case& c : cases) {
        Page page(port_, c.host, c.origin);
        EXPECT_EQ(page.Status(), c.status) << c.host << " from " << c.origin;
        EXPECT_EQ(page.Open(), c.status == 101) << c.host << " from " << c.origin;
        if (page.Open()) {
            EXPECT_EQ(page.Receive(), "Iagent-control=yes");
        }
    }
}

TEST_F(WebServerTest, OversizedOrBrokenFramesCloseOnlyTheirPage) {
    auto big = OwnPage();
    auto vanishing = OwnPage();
    auto steady = OwnPage();

    // The server hangs up at the frame's header: the write may fail half-way, or end and meet
    // the close frame (message too big); either way no hang and no message.
    const beast::error_code sent = big->Send("E" + std::string(10 << 20, 'x'));
    EXPECT_EQ(big->Receive(), "");
    EXPECT_NE(big->error(), asio::error::timed_out);
    if (!sent) {
        EXPECT_EQ(big->error(), websocket::error::closed) << big->error().message();
        EXPECT_EQ(big->CloseCode(), websocket::close_code::too_big);
    }
    vanishing->SendHalf("E<brguiEvent id=\"half");
    vanishing->Vanish();

    // The largest message allowed passes whole; the others still hear the server.
    const std::string largest = "E" + std::string(WebServer::kMaxFrameBytes - 1, 'y');
    EXPECT_FALSE(steady->Send(largest));
    ASSERT_TRUE(WaitForEvents(1));
    server_->PublishNotice(
        "<brguiNotice type=\"update\"><label id=\"a\" value=\"1\"/></brguiNotice>");
    EXPECT_EQ(steady->Receive(),
              "N<brguiNotice type=\"update\"><label id=\"a\" value=\"1\"/></brguiNotice>");
    auto later = OwnPage();
    EXPECT_EQ(later->Receive(),
              "N<brguiNotice type=\"update\"><label id=\"a\" value=\"1\"/></brguiNotice>");
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_EQ(events_.size(), 1u);  // nothing of the broken messages came through
    EXPECT_TRUE(events_[0] == largest.substr(1));
}

TEST_F(WebServerTest, TwentyPagesGetEveryNoticeInTheSameOrder) {
    std::vector<std::unique_ptr<Page>> pages;
    for (int i = 0; i < 20; ++i)
        pages.push_back(OwnPage());
    // Two module threads deliver at once; every page must see one and the same order.
    constexpr int kPerThread = 50;
    auto deliver = [this](int thread) {
        for (int i = 0; i < kPerThread; ++i)
            server_->PublishNotice("<brguiNotice type=\"update\"><label id=\"t" +
                                   std::to_string(thread) + "\" value=\"" + std::to_string(i) +
                                   "\"/></brguiNotice>");
    };
    std::thread first(deliver, 0), second(deliver, 1);
    first.join();
    second.join();

    std::vector<std::string> order;
    for (size_t p = 0; p < pages.size(); ++p) {
        std::vector<std::string> seen;
        for (int i = 0; i < 2 * kPerThread; ++i)
            seen.push_back(pages[p]->Receive());
        if (p == 0)
            order = seen;
        else
            EXPECT_EQ(seen, order) << "page " << p;
    }
    int next[2] = {0, 0};
    for (const std::string& message : order) {
        const int thread = message.find("id=\"t1\"") != std::string::npos ? 1 : 0;
        EXPECT_NE(message.find("value=\"" + std::to_string(next[thread]++) + "\""),
                  std::string::npos)
            << message;
    }
    EXPECT_EQ(next[0], kPerThread);
    EXPECT_EQ(next[1], kPerThread);
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
    const std::string setup =
        "<brguiNotice module=\"m\" type=\"setup\"><label id=\"a\"/>"
        "<label id=\"b\"/></brguiNotice>";
    const std::string a1 = update("<label id=\"a\" value=\"1\"/>", " state=\"Error\"");
    const std::string a2 = update("<label id=\"a\" value=\"2\"/>", " state=\"Good\"");
    const std::string bHidden = update("<label id=\"b\" hidden=\"true\"/>");
    const std::string bValue = update("<label id=\"b\" value=\"x\"/>");
    // The same row id stands in both boxes: a row of one does not replace the other's.
    const auto row = [&](const char* box, const char* attributes, const char* value) {
        return update(std::string("<outlinelistbox id=\"") + box + "\"" + attributes +
                      "><listgroup id=\"g\"><listrow id=\"id_cur_tower\"><listrowcolumn "
                      "label=\"" +
                      value + "\"/></listrow></listgroup></outlinelistbox>");
    };
    const std::string statsOld = row("stat_outlinelistbox", " updaterows=\"true\"", "old");
    const std::string overview = row("overview_stat_outlinelistbox", "", "o");
    const std::string statsNew = row("stat_outlinelistbox", " updaterows=\"true\"", "new");
    const std::string dialog = popup("credential_dialog", "type=\"custom\"");
    const std::string error = popup("error_popup", "type=\"error\"");
    const std::string dispose = popup("credential_dialog", "dispose=\"true\"");

    auto early = OwnPage();
    std::vector<std::string> published = {setup,    a1,       a2,     bHidden, bValue, statsOld,
                                          overview, statsNew, dialog, error,   dispose};
    for (int i = 0; i < 105; ++i)
        published.push_back(update("<log messagehistory=\"line " + std::to_string(i) + "\"/>"));
    published.push_back("not a notice at all");
    for (const std::string& notice : published)
        server_->PublishNotice(notice);
    for (int i = 0; i < 250; ++i)
        server_->PublishAgentLine("RECV line " + std::to_string(i));
    for (const std::string& notice : published)  // live: everything, as it came
        ASSERT_EQ(early->Receive(), "N" + notice);

    std::vector<std::string> expected = {setup, a2, bHidden, bValue, overview, statsNew, error};
    for (int i = 5; i < 105; ++i)
        expected.push_back(update("<log messagehistory=\"line " + std::to_string(i) + "\"/>"));
    auto late = OwnPage();
    for (const std::string& notice : expected)
        EXPECT_EQ(late->Receive(), "N" + notice);
    for (int i = 50; i < 250; ++i)
        EXPECT_EQ(late->Receive(), "ARECV line " + std::to_string(i));

    // A new setup starts the page over: nothing from before it is replayed.
    const std::string setup2 =
        "<brguiNotice module=\"m\" type=\"setup\"><label id=\"c\"/></brguiNotice>";
    const std::string c1 = update("<label id=\"c\" value=\"1\"/>");
    server_->PublishNotice(setup2);
    server_->PublishNotice(c1);
    server_->PublishAgentLine("RECV last");
    EXPECT_EQ(late->Receive(), "N" + setup2);  // the late page is now live too
    auto latest = OwnPage();
    EXPECT_EQ(latest->Receive(), "N" + setup2);
    EXPECT_EQ(latest->Receive(), "N" + c1);
    EXPECT_EQ(latest->Receive(), "ARECV line 51");
}

TEST_F(WebServerTest, EventsInOrderAndRepliesToTheAskingPageOnly) {
    auto asking = OwnPage();
    auto other = OwnPage();
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(asking->Send("E<brguiEvent id=\"e" + std::to_string(i) + "\"/>"));
    EXPECT_FALSE(asking->Send("Cproxy 10.1.2.3 3128 Basic office"));
    EXPECT_EQ(asking->Receive(), "ROK echo proxy 10.1.2.3 3128 Basic office");
    EXPECT_FALSE(asking->Send("Cstate 1\nexit"));
    EXPECT_EQ(asking->Receive().substr(0, 5), "RERR ");
    EXPECT_FALSE(other->Send("E<brguiEvent id=\"e3\"/>"));
    ASSERT_TRUE(WaitForEvents(4));
    {
        std::lock_guard<std::mutex> lock(mutex_);
        EXPECT_EQ(events_,
                  (std::vector<std::string>{"<brguiEvent id=\"e0\"/>", "<brguiEvent id=\"e1\"/>",
                                            "<brguiEvent id=\"e2\"/>", "<brguiEvent id=\"e3\"/>"}));
    }
    // The other page heard none of the replies: its next message is the next notice.
    server_->PublishStopped();
    EXPECT_EQ(other->Receive(), "S");
}

}  // namespace
