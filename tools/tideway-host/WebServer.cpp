#include "WebServer.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "NoticeCache.h"
#include "WebFiles.h"

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

using Message = std::shared_ptr<const std::string>;

Message Frame(char prefix, const std::string& payload) {
    auto message = std::make_shared<std::string>();
    message->reserve(payload.size() + 1);
    message->push_back(prefix);
    message->append(payload);
    return message;
}

class HttpSession;
class PageSession;

}  // namespace

// Everything the sessions share. Used on the I/O thread only, apart from the members set in
// Listen before the io_context runs (allowedHosts, root, options).
struct WebServer::State {
    State(asio::io_context& context, WebServerOptions opts, EventHandler event,
          ControlHandler control)
        : io(context),
          options(std::move(opts)),
          onEvent(std::move(event)),
          onControl(std::move(control)),
          acceptor(context),
          closeTimer(context) {}

    void Accept(const std::shared_ptr<State>& self);
    bool HostAllowed(const std::string& host) const;
    size_t Connections() const { return https.size() + pages.size(); }
    void Broadcast(const Message& message);
    void Leave(const std::shared_ptr<PageSession>& page);

    asio::io_context& io;
    WebServerOptions options;
    EventHandler onEvent;
    ControlHandler onControl;
    tcp::acceptor acceptor;
    asio::steady_timer closeTimer;  // cuts off the pages that linger after Close
    std::vector<std::string> allowedHosts;
    std::string root;  // real path of the web root
    NoticeCache notices;
    std::deque<Message> agentLines;  // the last kReplayAgentLines "A" messages
    std::map<HttpSession*, std::weak_ptr<HttpSession>> https;
    std::map<PageSession*, std::shared_ptr<PageSession>> pages;  // accepted WebSockets
    uint64_t nextPage = 1;
    bool closed = false;
};

namespace {

// One page's WebSocket: its greeting and replay, its reads, and a write queue that keeps one
// write in flight at a time.
class PageSession : public std::enable_shared_from_this<PageSession> {
  public:
    PageSession(std::shared_ptr<WebServer::State> state, beast::tcp_stream&& stream)
        : state_(std::move(state)), ws_(std::move(stream)), number_(state_->nextPage++) {}

    void Accept(http::request<http::empty_body> request) {
        beast::get_lowest_layer(ws_).expires_never();
        // Pings keep an idle page's connection checked; a page gone silent for a minute is cut.
        ws_.set_option(websocket::stream_base::timeout{std::chrono::seconds(10),
                                                       std::chrono::seconds(60), true});
        ws_.read_message_max(WebServer::kMaxFrameBytes);
        ws_.text(true);
        ws_.async_accept(request,
                         [self = shared_from_this()](beast::error_code ec) { self->OnAccept(ec); });
    }

    void Send(const Message& message) {
        if (ended_ || closing_)
            return;
        if (queuedBytes_ + message->size() > WebServer::kMaxQueuedBytes) {
            fprintf(stderr, "tideway-host: page %llu does not read its messages; disconnected\n",
                    static_cast<unsigned long long>(number_));
            Abort();
            return;
        }
        queue_.push_back(message);
        queuedBytes_ += message->size();
        if (!writing_)
            Write();
    }

    void Close(websocket::close_code code) {
        if (ended_ || closing_)
            return;
        closing_ = true;
        ws_.async_close(code, [self = shared_from_this()](beast::error_code) {});
    }

    void Abort() {
        beast::error_code ignored;
        beast::get_lowest_layer(ws_).socket().close(ignored);
    }

  private:
    void OnAccept(beast::error_code ec) {
        if (ec)
            return;  // the socket closes with this object
        if (state_->closed) {
            Close(websocket::close_code::going_away);
            return;
        }
        state_->pages.emplace(this, shared_from_this());
        const auto yesNo = [](bool on) { return on ? "yes" : "no"; };
        Send(Frame('I', std::string("agent-control=") + yesNo(state_->options.agentControl)));
        Send(Frame('I', std::string("agent-log=") + yesNo(state_->options.agentLog)));
        for (const Message& notice : state_->notices.Replay())
            Send(notice);
        for (const Message& line : state_->agentLines)
            Send(line);
        Read();
    }

    void Read() {
        ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, size_t) {
            self->OnRead(ec);
        });
    }

    void OnRead(beast::error_code ec) {
        if (ec) {
            if (ec == websocket::error::message_too_big)
                fprintf(stderr, "tideway-host: page %llu sent a message over %zu bytes; closed\n",
                        static_cast<unsigned long long>(number_), WebServer::kMaxFrameBytes);
            End();
            return;
        }
        std::string text = beast::buffers_to_string(buffer_.data());
        buffer_.consume(buffer_.size());
        if (!ws_.got_text()) {
            fprintf(stderr, "tideway-host: page %llu sent a binary message; closed\n",
                    static_cast<unsigned long long>(number_));
            Close(websocket::close_code::policy_error);
        } else if (!closing_) {
            Handle(std::move(text));
        }
        Read();  // also while closing: the read completes the close handshake
    }

    void Handle(std::string text) {
        const char prefix = text.empty() ? '\0' : text[0];
        if (prefix == 'E') {
            state_->onEvent(text.substr(1));
        } else if (prefix == 'C') {
            std::string line = text.substr(1);
            if (!state_->options.agentControl || !state_->onControl) {
                Send(Frame('R', "ERR no agent control"));
            } else if (line.size() > WebServer::kMaxControlLine ||
                       line.find_first_of("\r\n") != std::string::npos) {
                Send(Frame('R', "ERR control line with a line break or over 4096 bytes"));
            } else {
                std::weak_ptr<PageSession> page = weak_from_this();
                std::shared_ptr<WebServer::State> state = state_;
                state_->onControl(std::move(line), [page, state](const std::string& reply) {
                    asio::post(state->io, [page, message = Frame('R', reply)] {
                        if (auto self = page.lock())
                            self->Send(message);
                    });
                });
            }
        } else {
            fprintf(stderr, "tideway-host: page %llu sent a message without a known prefix\n",
                    static_cast<unsigned long long>(number_));
        }
    }

    void Write() {
        writing_ = true;
        ws_.async_write(
            asio::buffer(*queue_.front()),
            [self = shared_from_this()](beast::error_code ec, size_t) { self->OnWrite(ec); });
    }

    void OnWrite(beast::error_code ec) {
        writing_ = false;
        queuedBytes_ -= queue_.front()->size();
        queue_.pop_front();
        if (ec) {
            End();
            return;
        }
        if (!queue_.empty() && !closing_)
            Write();
    }

    // The page is gone (or being cut off): it leaves the broadcast, and its socket closes so
    // that a write still in flight ends too.
    void End() {
        if (ended_)
            return;
        ended_ = true;
        Abort();
        state_->Leave(shared_from_this());
    }

    std::shared_ptr<WebServer::State> state_;
    websocket::stream<beast::tcp_stream> ws_;
    beast::flat_buffer buffer_;
    std::deque<Message> queue_;
    size_t queuedBytes_ = 0;
    const uint64_t number_;
    bool writing_ = false;
    bool closing_ = false;
    bool ended_ = false;
};

// One HTTP connection: requests for the page's files, or the upgrade to a page's WebSocket.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    HttpSession(std::shared_ptr<WebServer::State> state, tcp::socket&& socket)
        : state_(std::move(state)), stream_(std::move(socket)) {}
    ~HttpSession() { state_->https.erase(this); }

    void Run() {
        state_->https.emplace(this, weak_from_this());
        Read();
    }

    void Abort() {
        beast::error_code ignored;
        stream_.socket().close(ignored);
    }

  private:
    void Read() {
        parser_.emplace();
        parser_->header_limit(WebServer::kMaxHeaderBytes);
        stream_.expires_after(std::chrono::seconds(30));
        http::async_read(
            stream_, buffer_, *parser_,
            [self = shared_from_this()](beast::error_code ec, size_t) { self->OnRead(ec); });
    }

    void OnRead(beast::error_code ec) {
        if (ec == http::error::header_limit)
            return Respond(http::status::request_header_fields_too_large, 11, true);
        if (ec == http::error::unexpected_body)
            return Respond(http::status::payload_too_large, 11, true);
        if (ec && ec.category() == http::make_error_code(http::error::bad_target).category() &&
            ec != http::error::end_of_stream && ec != http::error::partial_message)
            return Respond(http::status::bad_request, 11, true);
        if (ec)
            return;  // closed, timed out or reset: the socket closes with this object
        Handle(parser_->release());
    }

    void Handle(http::request<http::empty_body> request) {
        const unsigned version = request.version();
        const std::string host(request[http::field::host]);
        if (!state_->HostAllowed(host)) {
            fprintf(stderr, "tideway-host: refused a request for host \"%s\"\n", host.c_str());
            return Respond(http::status::forbidden, version, true);
        }
        if (websocket::is_upgrade(request)) {
            const std::string origin(request[http::field::origin]);
            if (request.target() != "/ws")
                return Respond(http::status::not_found, version, true);
            if (origin != "http://" + host) {
                fprintf(stderr, "tideway-host: refused a WebSocket from origin \"%s\"\n",
                        origin.c_str());
                return Respond(http::status::forbidden, version, true);
            }
            if (state_->closed || state_->pages.size() >= WebServer::kMaxConnections)
                return Respond(http::status::service_unavailable, version, true);
            std::make_shared<PageSession>(state_, std::move(stream_))->Accept(std::move(request));
            return;
        }
        const bool head = request.method() == http::verb::head;
        if (request.method() != http::verb::get && !head)
            return Respond(http::status::method_not_allowed, version, !request.keep_alive());
        const std::string name = ServableName(std::string(request.target()));
        std::string body;
        if (name.empty() || !ReadWebFile(state_->root, name, body))
            return Respond(http::status::not_found, version, !request.keep_alive());
        auto response = NewResponse(http::status::ok, version, !request.keep_alive());
        response->set(http::field::content_type, ContentTypeOf(name));
        response->set("Content-Security-Policy",
                      "default-src 'self'; connect-src 'self' ws://" + host +
                          "; img-src 'self' data:; style-src 'self' 'unsafe-inline'; "
                          "frame-ancestors 'none'; base-uri 'none'; form-action 'none'");
        response->content_length(body.size());
        if (!head)
            response->body() = std::move(body);
        Send(std::move(response));
    }

    using Response = http::response<http::string_body>;

    std::shared_ptr<Response> NewResponse(http::status status, unsigned version, bool close) {
        auto response = std::make_shared<Response>(status, version);
        response->set(http::field::server, "tideway-host");
        response->set(http::field::cache_control, "no-store");
        response->set("X-Content-Type-Options", "nosniff");
        response->set("X-Frame-Options", "DENY");
        response->set("Referrer-Policy", "no-referrer");
        response->keep_alive(!close);
        return response;
    }

    void Respond(http::status status, unsigned version, bool close) {
        auto response = NewResponse(status, version, close);
        if (status == http::status::method_not_allowed)
            response->set(http::field::allow, "GET, HEAD");
        response->set(http::field::content_type, "text/plain; charset=utf-8");
        response->body() = std::string(http::obsolete_reason(status)) + "\n";
        response->prepare_payload();
        Send(std::move(response));
    }

    void Send(std::shared_ptr<Response> response) {
        stream_.expires_after(std::chrono::seconds(30));
        http::async_write(stream_, *response,
                          [self = shared_from_this(), response](beast::error_code ec, size_t) {
                              if (ec || !response->keep_alive() || self->state_->closed) {
                                  beast::error_code ignored;
                                  self->stream_.socket().shutdown(tcp::socket::shutdown_send,
                                                                  ignored);
                                  return;
                              }
                              self->Read();
                          });
    }

    std::shared_ptr<WebServer::State> state_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::empty_body>> parser_;
};

std::string HostText(const asio::ip::address& address) {
    return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
}

}  // namespace

void WebServer::State::Accept(const std::shared_ptr<State>& self) {
    acceptor.async_accept([self](beast::error_code ec, tcp::socket socket) {
        if (self->closed)
            return;
        if (!ec) {
            if (self->Connections() < kMaxConnections * 2)
                std::make_shared<HttpSession>(self, std::move(socket))->Run();
            else
                fprintf(stderr, "tideway-host: too many connections; one refused\n");
        }
        self->Accept(self);
    });
}

bool WebServer::State::HostAllowed(const std::string& host) const {
    for (const std::string& allowed : allowedHosts) {
        if (host == allowed)
            return true;
    }
    return false;
}

void WebServer::State::Broadcast(const Message& message) {
    std::vector<std::shared_ptr<PageSession>> copy;
    copy.reserve(pages.size());
    for (const auto& page : pages)
        copy.push_back(page.second);
    for (const auto& page : copy)
        page->Send(message);
}

void WebServer::State::Leave(const std::shared_ptr<PageSession>& page) {
    pages.erase(page.get());
    if (closed && pages.empty())
        closeTimer.cancel();
}

WebServer::WebServer(asio::io_context& io, WebServerOptions options, EventHandler onEvent,
                     ControlHandler onControl)
    : state_(std::make_shared<State>(io, std::move(options), std::move(onEvent),
                                     std::move(onControl))) {}

WebServer::~WebServer() {
    // The io_context no longer runs, so nothing else touches the state. A page still listed
    // (the io_context was stopped before it ended) would keep the state alive in a cycle.
    state_->pages.clear();
}

bool WebServer::Listen(std::string& error) {
    State& state = *state_;
    char root[PATH_MAX];
    if (realpath(state.options.webRoot.c_str(), root) == nullptr) {
        error = "cannot use the web root " + state.options.webRoot + ": " + strerror(errno);
        return false;
    }
    state.root = root;
    beast::error_code ec;
    const asio::ip::address address = asio::ip::make_address(state.options.address, ec);
    if (ec) {
        error = "not an IP address: " + state.options.address;
        return false;
    }
    const tcp::endpoint endpoint(address, state.options.port);
    state.acceptor.open(endpoint.protocol(), ec);
    if (!ec)
        state.acceptor.set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec)
        state.acceptor.bind(endpoint, ec);
    if (!ec)
        state.acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        error = "cannot listen on " + HostText(address) + ":" + std::to_string(state.options.port) +
                ": " + ec.message();
        return false;
    }
    port_ = state.acceptor.local_endpoint().port();
    state.allowedHosts.push_back(HostText(address) + ":" + std::to_string(port_));
    if (address == asio::ip::make_address("127.0.0.1"))
        state.allowedHosts.push_back("localhost:" + std::to_string(port_));
    state.Accept(state_);
    return true;
}

std::string WebServer::Url() const {
    return "http://" + state_->allowedHosts.front() + "/";
}

void WebServer::PublishNotice(std::string xml) {
    asio::post(state_->io, [state = state_, xml = std::move(xml)] {
        const Message message = Frame('N', xml);
        if (state->notices.Add(xml, message) == NoticeCache::Outcome::kIgnored)
            fprintf(stderr,
                    "tideway-host: a notice that is not a setup, update or popup "
                    "brguiNotice goes to the pages but not into their replay\n");
        state->Broadcast(message);
    });
}

void WebServer::PublishStopped() {
    asio::post(state_->io, [state = state_] { state->Broadcast(Frame('S', "")); });
}

void WebServer::PublishAgentLine(std::string line) {
    asio::post(state_->io, [state = state_, line = std::move(line)] {
        const Message message = Frame('A', line);
        state->agentLines.push_back(message);
        if (state->agentLines.size() > kReplayAgentLines)
            state->agentLines.pop_front();
        state->Broadcast(message);
    });
}

void WebServer::Close() {
    asio::post(state_->io, [state = state_] {
        if (state->closed)
            return;
        state->closed = true;
        beast::error_code ignored;
        state->acceptor.close(ignored);
        for (const auto& http : state->https) {
            if (auto session = http.second.lock())
                session->Abort();
        }
        if (state->pages.empty())
            return;
        for (const auto& page : state->pages)
            page.second->Close(websocket::close_code::going_away);
        state->closeTimer.expires_after(std::chrono::seconds(2));
        state->closeTimer.async_wait([state](beast::error_code ec) {
            if (ec)
                return;
            for (const auto& page : state->pages)
                page.second->Abort();
        });
    });
}
