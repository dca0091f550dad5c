// tideway-agent-sim: runs the agent simulator as a daemon, with control lines on stdin and,
// optionally, on a Unix-domain control socket.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include <boost/filesystem.hpp>

#include "AgentSimulator.h"
#include "ipc/IPCTesting.h"

namespace {

const char kUsage[] =
    "Usage: tideway-agent-sim [options]\n"
    "\n"
    "Simulates the service agent on the server side of the local IPC channel: greets each\n"
    "client with 1028 (or 1029/1030 when its service is not running), answers every request\n"
    "with its pair, sends statistics after a successful 1057 until 1060, and logs one line for\n"
    "every event and every message it receives (RECV ...), and for what it sends (SEND ...).\n"
    "\n"
    "Options:\n"
    "  --port N               IPC port (default 5003)\n"
    "  --root DIR             app-data root of the socket (default /opt): the socket is\n"
    "                         DIR/tarvex/brenlo/tideway/ipc/<port>.sock\n"
    "  --towers a,b,c         tower names (default west-1,west-2,east-1)\n"
    "  --active NAME          the active tower (default west-2; empty for none)\n"
    "  --service STATE        running, stopped or failed (default running)\n"
    "  --dct MODE,DETECT      closest-tower settings reported in 1045 (default 0,0)\n"
    "  --stats-interval-ms N  period of the statistics messages (default 1000)\n"
    "  --stats-fail           answer 1057 with failure\n"
    "  --log FILE             write the log there instead of stdout\n"
    "  --control PATH         also take control lines on a Unix socket at PATH\n"
    "  --daemon               ignore stdin (run until 'exit', SIGINT or SIGTERM);\n"
    "                         without it, the end of stdin ends the simulator\n"
    "  --help                 this text\n"
    "\n";

std::atomic<bool> g_bSignalled{false};

void OnSignal(int) {
    g_bSignalled = true;
}

bool NeedValue(int argc, char** argv, int& i, std::string& out) {
    if (i + 1 >= argc) {
        fprintf(stderr, "tideway-agent-sim: %s needs a value\n", argv[i]);
        return false;
    }
    out = argv[++i];
    return true;
}

// Serves control lines on a Unix socket, one client at a time, one reply line per line.
void ServeControlSocket(int listenFd, CAgentSimulator& sim, std::atomic<bool>& stop) {
    while (!stop) {
        pollfd p{listenFd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        const int fd = accept(listenFd, nullptr, nullptr);
        if (fd < 0)
            continue;
        std::string pending;
        char chunk[512];
        while (!stop) {
            pollfd c{fd, POLLIN, 0};
            const int ready = poll(&c, 1, 100);
            if (ready == 0)
                continue;
            const ssize_t n = ready > 0 ? read(fd, chunk, sizeof(chunk)) : -1;
            if (n <= 0)
                break;
            pending.append(chunk, static_cast<size_t>(n));
            size_t eol;
            while ((eol = pending.find('\n')) != std::string::npos) {
                const std::string reply = sim.Control(pending.substr(0, eol)) + "\n";
                pending.erase(0, eol + 1);
                if (write(fd, reply.data(), reply.size()) < 0)
                    break;
            }
        }
        close(fd);
    }
}

}  // namespace

int main(int argc, char** argv) {
    AgentSimOptions options;
    std::string root, logPath, controlPath;
    bool daemon = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        std::string value;
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage << CAgentSimulator::kControlHelp;
            return 0;
        } else if (arg == "--port") {
            if (!NeedValue(argc, argv, i, value))
                return 2;
            const long port = strtol(value.c_str(), nullptr, 10);
            if (port <= 0 || port > 65535) {
                fprintf(stderr, "tideway-agent-sim: bad port %s\n", value.c_str());
                return 2;
            }
            options.port = static_cast<uint16_t>(port);
        } else if (arg == "--root") {
            if (!NeedValue(argc, argv, i, root))
                return 2;
        } else if (arg == "--towers") {
            if (!NeedValue(argc, argv, i, value))
                return 2;
            options.towers.clear();
            size_t start = 0;
            while (start <= value.size()) {
                const size_t comma = value.find(',', start);
                const std::string item = value.substr(start, comma - start);
                if (!item.empty())
                    options.towers.push_back(item);
                if (comma == std::string::npos)
                    break;
                start = comma + 1;
            }
        } else if (arg == "--active") {
            if (!NeedValue(argc, argv, i, options.activeTower))
                return 2;
        } else if (arg == "--service") {
            if (!NeedValue(argc, argv, i, value) || !ParseServiceState(value, options.service)) {
                fprintf(stderr, "tideway-agent-sim: --service takes running, stopped or failed\n");
                return 2;
            }
        } else if (arg == "--dct") {
            if (!NeedValue(argc, argv, i, value))
                return 2;
            unsigned mode = 0, detect = 0;
            if (sscanf(value.c_str(), "%u,%u", &mode, &detect) != 2) {
                fprintf(stderr, "tideway-agent-sim: --dct takes MODE,DETECT\n");
                return 2;
            }
            options.dctMode = mode;
            options.dctDetectClosest = detect;
        } else if (arg == "--stats-interval-ms") {
            if (!NeedValue(argc, argv, i, value))
                return 2;
            options.statsIntervalMs = atoi(value.c_str());
        } else if (arg == "--stats-fail") {
            options.statsStartOk = false;
        } else if (arg == "--log") {
            if (!NeedValue(argc, argv, i, logPath))
                return 2;
        } else if (arg == "--control") {
            if (!NeedValue(argc, argv, i, controlPath))
                return 2;
        } else if (arg == "--daemon") {
            daemon = true;
        } else {
            fprintf(stderr, "tideway-agent-sim: unknown option %s (see --help)\n", arg.c_str());
            return 2;
        }
    }

    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    if (!root.empty())
        ipc::SetSocketRootForTesting(root);
    // The agent's installation owns the profile directory; the client writes its default
    // profile there when none exists.
    {
        const std::string config =
            (root.empty() ? std::string("/opt") : root) + "/tarvex/brenlo/tideway/config";
        boost::system::error_code ignored;
        boost::filesystem::create_directories(config, ignored);
    }

    std::ofstream logFile;
    if (!logPath.empty()) {
        logFile.open(logPath, std::ios::out | std::ios::app);
        if (!logFile) {
            fprintf(stderr, "tideway-agent-sim: cannot open %s\n", logPath.c_str());
            return 1;
        }
    }
    std::ostream& log = logPath.empty() ? std::cout : logFile;
    std::mutex outMutex;  // stdout carries both the log (without --log) and control replies

    CAgentSimulator sim(options, [&](const std::string& line) {
        std::lock_guard<std::mutex> lock(outMutex);
        log << line << std::endl;
    });
    const BR_STATUSCODE status = sim.Start();
    if (status != 0) {
        fprintf(stderr, "tideway-agent-sim: cannot listen on %s (status %d)\n",
                ipc::SocketPathForPort(options.port).c_str(), status);
        return 1;
    }

    std::atomic<bool> stopControl{false};
    std::thread controlThread;
    int controlFd = -1;
    if (!controlPath.empty()) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (controlPath.size() >= sizeof(address.sun_path)) {
            fprintf(stderr, "tideway-agent-sim: control path too long\n");
            return 1;
        }
        strcpy(address.sun_path, controlPath.c_str());
        unlink(controlPath.c_str());
        controlFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (controlFd < 0 ||
            bind(controlFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(controlFd, 4) != 0) {
            fprintf(stderr, "tideway-agent-sim: cannot open control socket %s: %s\n",
                    controlPath.c_str(), strerror(errno));
            return 1;
        }
        controlThread =
            std::thread(ServeControlSocket, controlFd, std::ref(sim), std::ref(stopControl));
    }

    std::string pending;
    bool stdinOpen = !daemon;
    while (!g_bSignalled && !sim.ExitRequested()) {
        pollfd p{STDIN_FILENO, POLLIN, 0};
        const int ready = stdinOpen ? poll(&p, 1, 100) : (usleep(100 * 1000), 0);
        if (ready <= 0)
            continue;
        char chunk[512];
        const ssize_t n = read(STDIN_FILENO, chunk, sizeof(chunk));
        if (n <= 0)
            break;  // end of stdin: the controlling process is gone
        pending.append(chunk, static_cast<size_t>(n));
        size_t eol;
        while ((eol = pending.find('\n')) != std::string::npos) {
            const std::string line = pending.substr(0, eol);
            pending.erase(0, eol + 1);
            if (line.find_first_not_of(" \t\r") == std::string::npos)
                continue;
            const std::string reply = sim.Control(line);
            std::lock_guard<std::mutex> lock(outMutex);
            std::cout << reply << std::endl;
        }
    }

    stopControl = true;
    if (controlThread.joinable())
        controlThread.join();
    if (controlFd >= 0) {
        close(controlFd);
        unlink(controlPath.c_str());
    }
    sim.Stop();
    return 0;
}
