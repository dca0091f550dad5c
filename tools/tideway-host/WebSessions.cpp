// The server's connections: HTTP requests for the page's files, and the pages' WebSockets.
#include <stdio.h>

#include <chrono>
#include <deque>
#include <optional>
#include <utility>

#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "WebFiles.h"
#include "WebServerState.h"

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

namespace {

// The length of the well-formed UTF-8 sequence at `i`, or 0: no overlong forms, no surrogates,
// nothing above U+10FFFF.
size_t Utf8SequenceAt(const std::string& text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return 1;
    const size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                          : lead >= 0xE0 && lead <= 0xEF ? 3
                          : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                         : 0;
    if (length == 0 || i + length > text.size())
        return 0;
    for (size_t k = 1; k < length; ++k) {
        if ((byte(k) & 0xC0) != 0x80)
            return 0;
    }
    const unsigned char second = byte(1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
        return 0;
    return length;
}

}  // namespace

WebMessage MakeWebMessage(char prefix, const std::string& payload) {
    auto message = std::make_shared<std::string>();
    message->reserve(payload.size() + 1);
    message->push_back(prefix);
    // A WebSocket text frame must be UTF-8, or the browser drops the connection (and a replayed
    // notice would drop every new one): each byte that is not part of a well-formed sequence
    // goes as U+FFFD, the replacement character.
    size_t replaced = 0;
    for (size_t i = 0; i < payload.size();) {
        const size_t length = Utf8SequenceAt(payload, i);
        if (length == 0) {
            message->append("\xEF\xBF\xBD");
            ++replaced;
            ++i;
        } else {
            message->append(payload, i, length);
            i += length;
        }
    }
    if (replaced != 0)
        fprintf(stderr,
                "tideway-host: %zu byte(s) that are not UTF-8 go to the pages as U+FFFD in a "
                "message starting '%c'\n",
                replaced, prefix);
    return message;
}

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

    void Send(const WebMessage& message) {
        if (ended_ || closing_)
            return;  // a page being closed gets nothing more
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

    // Closes the page once what is queued for it is written (the "S" before a shutdown must
    // reach it); nothing queued after this goes out.
    void Close(websocket::close_code code) {
        if (ended_ || closing_)
            return;
        closing_ = true;
        closeCode_ = code;
        if (!writing_)
            SendClose();
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
        Send(MakeWebMessage('I',
                            std::string("agent-control=") + yesNo(state_->options.agentControl)));
        Send(MakeWebMessage('I', std::string("agent-log=") + yesNo(state_->options.agentLog)));
        for (const WebMessage& notice : state_->notices.Replay())
            Send(notice);
        for (const WebMessage& line : state_->agentLines)
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
                Send(MakeWebMessage('R', "ERR no agent control"));
            } else if (line.size() > WebServer::kMaxControlLine ||
                       line.find_first_of("\r\n") != std::string::npos) {
                Send(MakeWebMessage('R', "ERR control line with a line break or over 4096 bytes"));
            } else {
                std::weak_ptr<PageSession> page = weak_from_this();
                std::shared_ptr<WebServer::State> state = state_;
                state_->onControl(std::move(line), [page, state](const std::string& reply) {
                    asio::post(state->io, [page, message = MakeWebMessage('R', reply)] {
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
        if (!queue_.empty())
            Write();
        else if (closing_)
            SendClose();
    }

    void SendClose() {
        ws_.async_close(closeCode_, [self = shared_from_this()](beast::error_code) {});
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
    std::deque<WebMessage> queue_;
    size_t queuedBytes_ = 0;
    const uint64_t number_;
    websocket::close_code closeCode_ = websocket::close_code::normal;
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
        // Two Host (or Origin) fields would let a check read one while something else trusts
        // the other: such a request is malformed.
        if (request.count(http::field::host) > 1 || request.count(http::field::origin) > 1)
            return Respond(http::status::bad_request, version, true);
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
                              if (ec)
                                  return;
                              if (!response->keep_alive() || self->state_->closed)
                                  self->Linger();
                              else
                                  self->Read();
                          });
    }

    // Ends the connection after a response: the client may still be sending (a header over the
    // limit), and closing with its bytes unread would reset the connection and could destroy
    // the response before the client reads it. So the sending side closes first, and what
    // still comes is read and dropped until the client closes too, for five seconds at most.
    void Linger() {
        beast::error_code ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
        stream_.expires_after(std::chrono::seconds(5));
        Drain();
    }

    void Drain() {
        stream_.async_read_some(asio::buffer(drain_),
                                [self = shared_from_this()](beast::error_code ec, size_t) {
                                    if (!ec)
                                        self->Drain();
                                });
    }

    std::shared_ptr<WebServer::State> state_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::empty_body>> parser_;
    char drain_[4096];
};

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

void WebServer::State::Broadcast(const WebMessage& message) {
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

void WebServer::State::CloseAll(const std::shared_ptr<State>& self) {
    if (closed)
        return;
    closed = true;
    beast::error_code ignored;
    acceptor.close(ignored);
    for (const auto& http : https) {
        if (auto session = http.second.lock())
            session->Abort();
    }
    if (pages.empty())
        return;
    for (const auto& page : pages)
        page.second->Close(websocket::close_code::going_away);
    closeTimer.expires_after(std::chrono::seconds(2));
    closeTimer.async_wait([self](beast::error_code ec) {
        if (ec)
            return;
        for (const auto& page : self->pages)
            page.second->Abort();
    });
}
