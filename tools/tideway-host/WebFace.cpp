// The glue between the presentation plug-in and the web server: notices from the module's
// threads go to the server (which only posts them to its I/O thread, so the module never waits
// for the network), events from the pages go through one queue to one thread that calls
// HandleEvent, in the order they arrived.
#include "WebFace.h"

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>

#include "AgentLink.h"
#include "Catalogue.h"
#include "IPresentationHost.h"
#include "IPresentationPlugin.h"
#include "WebServer.h"

namespace asio = boost::asio;

namespace {

constexpr uint32_t kClientId = 1;

// The one thread that hands the pages' events to the plug-in. Push is called on the server's
// I/O thread; the queue is bounded so that a page flooding events cannot grow it without end.
class EventThread {
  public:
    static constexpr size_t kMaxQueued = 1024;

    explicit EventThread(std::function<void(const std::string&)> handle)
        : handle_(std::move(handle)), thread_([this] { Run(); }) {}
    ~EventThread() { Stop(); }

    void Push(std::string xml) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_)
                return;
            if (queue_.size() >= kMaxQueued) {
                fprintf(stderr, "tideway-host: %zu events wait for the plug-in; one dropped\n",
                        queue_.size());
                return;
            }
            queue_.push_back(std::move(xml));
        }
        ready_.notify_one();
    }

    // Lets the event in progress finish, drops the rest and joins the thread.
    void Stop() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            queue_.clear();
        }
        ready_.notify_one();
        if (thread_.joinable())
            thread_.join();
    }

  private:
    void Run() {
        for (;;) {
            std::string xml;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                ready_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
                if (stopping_)
                    return;
                xml = std::move(queue_.front());
                queue_.pop_front();
            }
            handle_(xml);
        }
    }

    const std::function<void(const std::string&)> handle_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::string> queue_;  // guarded by mutex_
    bool stopping_ = false;          // guarded by mutex_
    std::thread thread_;
};

// The host side that the plug-in calls, on its own threads.
class WebHost : public IPresentationHost {
  public:
    explicit WebHost(WebServer& server) : server_(server) {}

    int32_t DeliverXml(uint32_t clientId, const char* xml) override {
        CheckClient(clientId);
        server_.PublishNotice(xml != nullptr ? xml : "");
        return 0;
    }
    int32_t NotifyStopped(uint32_t clientId) override {
        CheckClient(clientId);
        server_.PublishStopped();
        return 0;
    }

  private:
    void CheckClient(uint32_t clientId) {
        if (clientId != kClientId && !wrongClientSeen_.exchange(true))
            fprintf(stderr, "tideway-host: the plug-in called for client %u, not %u\n", clientId,
                    kClientId);
    }

    WebServer& server_;
    std::atomic<bool> wrongClientSeen_{false};
};

}  // namespace

bool ParseWebAddress(const std::string& text, std::string& address, uint16_t& port) {
    const size_t colon = text.rfind(':');
    std::string host = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    const std::string digits = colon == std::string::npos ? text : text.substr(colon + 1);
    if (digits.empty() || digits.size() > 5 ||
        digits.find_first_not_of("0123456789") != std::string::npos || std::stoul(digits) > 65535)
        return false;
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (host == "localhost")
        host = "127.0.0.1";
    // A name other than localhost is refused here, as a usage error, rather than at the bind.
    boost::system::error_code notAnAddress;
    asio::ip::make_address(host, notAnAddress);
    if (notAnAddress)
        return false;
    address = host;
    port = static_cast<uint16_t>(std::stoul(digits));
    return true;
}

bool RunWeb(CreatePluginFn createPlugin, DisposePluginFn disposePlugin,
            const WebFaceOptions& options) {
    Catalogue catalogue;
    if (!catalogue.Load(options.cataloguePath))
        return false;

    asio::io_context io(1);
    std::shared_ptr<AgentControl> control;
    if (!options.agentControl.empty())
        control = std::make_shared<AgentControl>(io, options.agentControl);

    // Set before the I/O thread starts, which is before any event can arrive.
    IPresentationPlugin* plugin = nullptr;
    EventThread events([&plugin](const std::string& xml) {
        if (plugin == nullptr)
            return;  // the creation failed: the page is served, but hosts nothing
        const int32_t result = plugin->HandleEvent(xml.c_str());
        if (result != 0)
            fprintf(stderr, "tideway-host: HandleEvent -> %d\n", result);
    });

    WebServerOptions serverOptions;
    serverOptions.address = options.address;
    serverOptions.port = options.port;
    serverOptions.webRoot = options.webRoot.empty() ? DataPath("web") : options.webRoot;
    serverOptions.agentControl = control != nullptr;
    serverOptions.agentLog = !options.agentLog.empty();
    WebServer::ControlHandler onControl;
    if (control) {
        onControl = [control](std::string line, WebServer::Reply reply) {
            control->Ask(std::move(line), std::move(reply));
        };
    }
    WebServer server(
        io, serverOptions, [&events](std::string xml) { events.Push(std::move(xml)); }, onControl);
    std::string error;
    if (!server.Listen(error)) {
        fprintf(stderr, "tideway-host: %s\n", error.c_str());
        return false;
    }
    if (options.address == "0.0.0.0" || options.address == "::") {
        fprintf(stderr,
                "tideway-host: requests must name the host as %s; on a wildcard address, give "
                "the address the browser uses instead\n",
                server.Url().c_str());
    }
    std::shared_ptr<AgentLogTail> tail;
    if (!options.agentLog.empty()) {
        tail = std::make_shared<AgentLogTail>(io, options.agentLog, [&server](std::string line) {
            server.PublishAgentLine(std::move(line));
        });
    }

    // The first SIGINT or SIGTERM asks for an orderly stop; a second one, while that stop
    // hangs, leaves at once.
    asio::signal_set signals(io, SIGINT, SIGTERM);
    std::promise<int> stopRequest;
    bool signalled = false;  // used on the I/O thread only
    std::function<void(const boost::system::error_code&, int)> onSignal =
        [&](const boost::system::error_code& ec, int number) {
            if (ec)
                return;
            if (signalled) {
                fprintf(stderr, "tideway-host: signal %d again; leaving at once\n", number);
                _exit(1);
            }
            signalled = true;
            stopRequest.set_value(number);
            signals.async_wait(onSignal);
        };
    signals.async_wait(onSignal);

    WebHost host(server);
    Plugin* created = createPlugin("com.tarvex.brenlo.presentation");
    bool ok = created != nullptr;
    bool initialized = false;
    bool started = false;
    if (!ok) {
        printf("CreatePlugin(presentation) failed; see the system log\n");
    } else {
        plugin = static_cast<IPresentationPlugin*>(created);
        const int32_t result = plugin->Initialize(&host, kClientId, &host, &catalogue);
        printf("Initialize -> %d\n", result);
        ok = initialized = result == 0;
    }

    auto work = asio::make_work_guard(io);
    std::thread ioThread([&io] { io.run(); });
    if (tail)
        asio::post(io, [tail] { tail->Start(); });
    if (ok) {
        const int32_t result = plugin->Start();
        printf("Start -> %d\n", result);
        ok = started = result == 0;
    }
    if (ok) {
        printf("Serving %s\n", server.Url().c_str());
        fflush(stdout);
        const int number = stopRequest.get_future().get();
        printf("Signal %d: stopping\n", number);
    }

    // No event reaches the plug-in once it stops; then no notice comes from it.
    events.Stop();
    if (created != nullptr) {
        if (started) {
            const int32_t stopped = plugin->Stop();
            printf("Stop -> %d\n", stopped);
            ok = ok && stopped == 0;
        }
        if (initialized) {
            const int32_t shutDown = plugin->Shutdown();
            printf("Shutdown -> %d\n", shutDown);
            ok = ok && shutDown == 0;
        }
        disposePlugin(created);
        printf("Plug-in disposed\n");
    }
    server.Close();
    asio::post(io, [&signals, control, tail] {
        signals.cancel();
        if (control)
            control->Close();
        if (tail)
            tail->Close();
    });
    work.reset();
    ioThread.join();
    fflush(stdout);
    return ok;
}
