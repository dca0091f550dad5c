// Internal to the web server (WebServer.cpp and WebSessions.cpp): the state that the server
// object and its sessions share. Used on the I/O thread only, apart from the members that
// Listen sets before the io_context runs (options, allowedHosts, root).
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_WEBSERVERSTATE_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_WEBSERVERSTATE_H_

#include <stdint.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "NoticeCache.h"
#include "WebServer.h"

// One message to pages, shared by all the queues it waits in.
using WebMessage = std::shared_ptr<const std::string>;

// The prefix letter, then the payload with each byte that is not UTF-8 as U+FFFD.
WebMessage MakeWebMessage(char prefix, const std::string& payload);

class HttpSession;
class PageSession;

struct WebServer::State {
    State(boost::asio::io_context& context, WebServerOptions opts, EventHandler event,
          ControlHandler control)
        : io(context),
          options(std::move(opts)),
          onEvent(std::move(event)),
          onControl(std::move(control)),
          acceptor(context),
          closeTimer(context) {}

    // Accepts connections until CloseAll.
    void Accept(const std::shared_ptr<State>& self);
    bool HostAllowed(const std::string& host) const;
    size_t Connections() const { return https.size() + pages.size(); }
    void Broadcast(const WebMessage& message);
    void Leave(const std::shared_ptr<PageSession>& page);
    // What WebServer::Close does, on the I/O thread.
    void CloseAll(const std::shared_ptr<State>& self);

    boost::asio::io_context& io;
    WebServerOptions options;
    EventHandler onEvent;
    ControlHandler onControl;
    boost::asio::ip::tcp::acceptor acceptor;
    boost::asio::steady_timer closeTimer;  // cuts off the pages that linger after Close
    std::vector<std::string> allowedHosts;
    std::string root;  // real path of the web root
    NoticeCache notices;
    std::deque<WebMessage> agentLines;  // the last kReplayAgentLines "A" messages
    std::map<HttpSession*, std::weak_ptr<HttpSession>> https;
    std::map<PageSession*, std::shared_ptr<PageSession>> pages;  // accepted WebSockets
    uint64_t nextPage = 1;
    bool closed = false;
};

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_WEBSERVERSTATE_H_
