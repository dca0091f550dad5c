#include "WebServer.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <boost/asio/post.hpp>

#include "WebServerState.h"

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

namespace {

std::string HostText(const asio::ip::address& address) {
    return address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
}

}  // namespace

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
    boost::system::error_code ec;
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
    // A browser leaves the port out of Host (and so out of Origin) when it is 80.
    std::vector<std::string> ports = {":" + std::to_string(port_)};
    if (port_ == 80)
        ports.insert(ports.begin(), "");
    for (const std::string& port : ports) {
        state.allowedHosts.push_back(HostText(address) + port);
        if (address == asio::ip::make_address("127.0.0.1"))
            state.allowedHosts.push_back("localhost" + port);
    }
    state.Accept(state_);
    return true;
}

std::string WebServer::Url() const {
    return "http://" + state_->allowedHosts.front() + "/";
}

void WebServer::PublishNotice(std::string xml) {
    asio::post(state_->io, [state = state_, xml = std::move(xml)] {
        const WebMessage message = MakeWebMessage('N', xml);
        if (state->notices.Add(xml, message) == NoticeCache::Outcome::kIgnored)
            fprintf(stderr,
                    "tideway-host: a notice that is not a setup, update or popup "
                    "brguiNotice goes to the pages but not into their replay\n");
        state->Broadcast(message);
    });
}

void WebServer::PublishStopped() {
    asio::post(state_->io, [state = state_] { state->Broadcast(MakeWebMessage('S', "")); });
}

void WebServer::PublishAgentLine(std::string line) {
    asio::post(state_->io, [state = state_, line = std::move(line)] {
        const WebMessage message = MakeWebMessage('A', line);
        state->agentLines.push_back(message);
        if (state->agentLines.size() > kReplayAgentLines)
            state->agentLines.pop_front();
        state->Broadcast(message);
    });
}

void WebServer::Close() {
    asio::post(state_->io, [state = state_] { state->CloseAll(state); });
}
