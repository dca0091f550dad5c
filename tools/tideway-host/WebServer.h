// The HTTP and WebSocket server of tideway-host --web, independent of the plug-in: it serves the
// page's own files, and on /ws talks the one-letter-prefix protocol of web/PROTOCOL.md. Notices
// and agent log lines come in through the Publish methods, and go to every page and into the
// replay for pages that connect later; what a page sends goes out through the two handlers.
//
// Threads: all network work runs on the threads that run the io_context given to the
// constructor (one is expected). Listen is called once before the io_context runs; the Publish
// methods and Close are safe to call from any thread. The handlers are called on the I/O thread
// and must not block. The object may be destroyed once the io_context has stopped running.
#ifndef TIDEWAY_TOOLS_TIDEWAY_HOST_WEBSERVER_H_
#define TIDEWAY_TOOLS_TIDEWAY_HOST_WEBSERVER_H_

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

struct WebServerOptions {
    std::string address = "127.0.0.1";  // numeric IPv4 or IPv6 address
    uint16_t port = 8080;               // 0: any free port
    std::string webRoot;                // the folder of the page's files
    bool agentControl = false;          // told to the page; without it "C" lines get an error
    bool agentLog = false;              // told to the page
};

class WebServer {
  public:
    // Sends "R" + line to the page that asked; dropped when that page has gone. Any thread.
    using Reply = std::function<void(const std::string& line)>;
    // The document of an "E" message, without its prefix.
    using EventHandler = std::function<void(std::string xml)>;
    // The line of a "C" message (checked: no line break, at most kMaxControlLine bytes).
    using ControlHandler = std::function<void(std::string line, Reply reply)>;

    static constexpr size_t kMaxFrameBytes = 1 << 20;
    static constexpr size_t kMaxHeaderBytes = 8192;
    static constexpr size_t kMaxControlLine = 4096;
    static constexpr size_t kReplayAgentLines = 200;
    static constexpr size_t kMaxConnections = 128;
    // A page whose unsent messages pass this is not reading; it is disconnected.
    static constexpr size_t kMaxQueuedBytes = 32 << 20;

    WebServer(boost::asio::io_context& io, WebServerOptions options, EventHandler onEvent,
              ControlHandler onControl);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Checks the web root, binds, listens and starts accepting. False, with `error` set, when
    // the address, the port or the web root cannot be used.
    bool Listen(std::string& error);
    // After Listen: the port really bound, and "http://ADDR:PORT/".
    uint16_t Port() const { return port_; }
    std::string Url() const;

    // A notice as the plug-in delivered it: "N" + xml to every page, and kept for the replay.
    void PublishNotice(std::string xml);
    // The plug-in stopped: "S" to every page.
    void PublishStopped();
    // A line of the agent's log: "A" + line to every page; the last kReplayAgentLines are
    // replayed to a page that connects later.
    void PublishAgentLine(std::string line);
    // Stops accepting, closes every page (going away) and every HTTP connection. Pages that do
    // not finish their close handshake within two seconds are cut off.
    void Close();

    // The state shared with the sessions (which may outlive this object); defined in the source.
    struct State;

  private:
    std::shared_ptr<State> state_;
    uint16_t port_ = 0;
};

#endif  // TIDEWAY_TOOLS_TIDEWAY_HOST_WEBSERVER_H_
