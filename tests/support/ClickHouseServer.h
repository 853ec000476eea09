#pragma once

// Debian's clickhouse-server run as a child process for the fleet test and benchmark: its own
// configuration and data folder, 127.0.0.1 and a free port only, a process group of its own
// that is killed when the object goes, and a SIGTERM when the caller dies. Header-only, so
// that the benchmarks use it without the test library.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace zrn {
namespace test {

// The first of `paths` that can be run; "" when none.
inline std::string firstExecutable(std::vector<std::string> const& paths) {
    for (auto const& path : paths)
        if (::access(path.c_str(), X_OK) == 0) return path;
    return "";
}

inline std::string clickHouseServerPath() {
    return firstExecutable({"/usr/sbin/clickhouse-server", "/usr/bin/clickhouse-server"});
}

inline std::string clickHouseClientPath() {
    return firstExecutable({"/usr/bin/clickhouse-client"});
}

// A free TCP port on 127.0.0.1 (the kernel's choice, released for the server to take).
inline int freeLocalPort() {
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

// A shell word for `text`.
inline std::string shellWord(std::string const& text) {
    std::string result = "'";
    for (char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

class ClickHouseServer {
public:
    struct Result {
        int code = -1;
        std::string out;
        std::string err;
    };

    // Starts the server with its files in `folder` (an existing, empty folder).
    ClickHouseServer(std::string const& server, std::string client, std::string folder)
        : m_client(std::move(client)), m_folder(std::move(folder)), m_port(freeLocalPort()) {
        writeConfig();
        std::string const config = "--config-file=" + m_folder + "/config.xml";
        std::string const console = m_folder + "/console.log";
        m_pid = ::fork();
        if (m_pid == 0) {
            ::setpgid(0, 0);
            // Stopped even when the caller is killed outright (a test timeout) and no
            // destructor runs.
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            int const log = ::open(console.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(log, 1);
            ::dup2(log, 2);
            ::execl(server.c_str(), server.c_str(), config.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::setpgid(m_pid, m_pid);  // also here: the group exists before either side goes on
    }
    // Asks the group to stop, then kills it if it has not stopped within 20 seconds.
    ~ClickHouseServer() {
        ::kill(-m_pid, SIGTERM);
        if (!waitExit(20)) {
            ::kill(-m_pid, SIGKILL);
            waitExit(20);
        }
    }
    ClickHouseServer(ClickHouseServer const&) = delete;
    ClickHouseServer& operator=(ClickHouseServer const&) = delete;

    int port() const { return m_port; }
    std::string const& folder() const { return m_folder; }

    // Whether the server answers a query within `seconds`.
    bool waitReady(double seconds) const {
        auto const deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < deadline) {
            if (query("SELECT 1").out == "1\n") return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }

    // Runs clickhouse-client with `flags`, `sql` as its query (none: the queries come from
    // `input`) and the file `input` as its standard input when given.
    Result query(std::string const& sql, std::string const& input = "",
                 std::string const& flags = "") const {
        std::string const errFile = m_folder + "/client.err";
        std::string command = shellWord(m_client) + " --host 127.0.0.1 --port " +
                              std::to_string(m_port) + " " + flags;
        if (!sql.empty()) command += " --query " + shellWord(sql);
        if (!input.empty()) command += " <" + shellWord(input);
        command += " 2>" + shellWord(errFile);
        Result result;
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe) return result;
        char buffer[4096];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
            result.out.append(buffer, n);
        int const status = ::pclose(pipe);
        result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        std::ifstream err(errFile);
        std::ostringstream text;
        text << err.rdbuf();
        result.err = text.str();
        return result;
    }

private:
    bool waitExit(double seconds) {
        auto const deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        int status = 0;
        while (::waitpid(m_pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return true;
    }

    void writeConfig() const {
        std::string const f = m_folder;
        std::ofstream(f + "/config.xml")
            << "<?xml version=\"1.0\"?>\n<yandex>\n"
            << "    <logger><level>warning</level><log>" << f << "/server.log</log><errorlog>" << f
            << "/error.log</errorlog></logger>\n"
            << "    <listen_host>127.0.0.1</listen_host>\n"
            << "    <tcp_port>" << m_port << "</tcp_port>\n"
            << "    <path>" << f << "/data/</path>\n"
            << "    <tmp_path>" << f << "/tmp/</tmp_path>\n"
            << "    <user_files_path>" << f << "/user_files/</user_files_path>\n"
            << "    <users_config>" << f << "/users.xml</users_config>\n"
            << "    <default_profile>default</default_profile>\n"
            << "    <default_database>default</default_database>\n"
            << "    <mark_cache_size>67108864</mark_cache_size>\n"
            << "</yandex>\n";
        std::ofstream(f + "/users.xml")
            << "<?xml version=\"1.0\"?>\n<yandex>\n    <profiles><default/></profiles>\n"
            << "    <users><default><password></password><networks><ip>127.0.0.1</ip>"
            << "</networks><profile>default</profile><quota>default</quota></default></users>\n"
            << "    <quotas><default/></quotas>\n</yandex>\n";
    }

    std::string m_client;
    std::string m_folder;
    int m_port;
    pid_t m_pid = -1;
};

}  // namespace test
}  // namespace zrn
