// The installed program itself: flags, the first line, --json output and a clean stop on SIGTERM.

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

#ifdef VELMORA_COLLECTOR_PROGRAM

// The program as a child process with its standard output and error on pipes.
class Child {
public:
    explicit Child(std::vector<std::string> arguments) {
        int out[2], err[2];
        if (::pipe(out) != 0 || ::pipe(err) != 0) throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], 1);
            ::dup2(err[1], 2);
            ::close(out[0]), ::close(out[1]), ::close(err[0]), ::close(err[1]);
            std::vector<char*> argv{const_cast<char*>(VELMORA_COLLECTOR_PROGRAM)};
            for (auto& argument : arguments) argv.push_back(argument.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            Wait();
        }
        ::close(out_);
        ::close(err_);
    }

    // The next line of standard output; empty when none came within a generous deadline.
    std::string OutLine() { return Line(out_, outBuffer_).value_or(""); }
    // Standard error up to its end; call once the program has ended.
    std::string ErrText() {
        std::string text;
        while (auto line = Line(err_, errBuffer_)) text += *line + "\n";
        return text;
    }
    int Terminate() {
        ::kill(pid_, SIGTERM);
        return Wait();
    }
    int Wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    static std::optional<std::string> Line(int fd, std::string& buffer) {
        while (buffer.find('\n') == std::string::npos) {
            pollfd ready{fd, POLLIN, 0};
            if (::poll(&ready, 1, 30000) <= 0) return std::nullopt;
            char chunk[4096];
            ssize_t n = ::read(fd, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer.append(chunk, static_cast<std::size_t>(n));
        }
        std::size_t end = buffer.find('\n');
        std::string line = buffer.substr(0, end);
        buffer.erase(0, end + 1);
        return line;
    }

    pid_t pid_ = -1;
    int out_ = -1, err_ = -1;
    std::string outBuffer_, errBuffer_;
};

TEST(CollectorProgram, PrintsItsAddressThenOneJsonLinePerHitAndStopsOnSigterm) {
    Child child({"--port", "0", "--json", "--aid", "AID-1"});
    const std::string first = child.OutLine();
    const std::string prefix = "velmora-collector listening on http://127.0.0.1:";
    ASSERT_EQ(first.rfind(prefix, 0), 0u) << first;
    int port = std::stoi(first.substr(prefix.size()));

    httplib::Client client("127.0.0.1", port);
    client.set_url_encode(false);
    auto id = client.Get("/id");
    ASSERT_TRUE(id);
    EXPECT_EQ(id->body, R"({"id":"AID-1"})");
    EXPECT_EQ(nlohmann::json::parse(child.OutLine())["kind"], "id");

    auto hit = client.Get("/b/ss/rs/0/WINU-4.0.0/s9?AQB=1&ndh=1&pageName=P%20Q&c.&a.&b=%C3%A9&.a&.c&AQE=1");
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->status, 200);
    auto line = nlohmann::json::parse(child.OutLine());
    EXPECT_EQ(line["kind"], "hit");
    EXPECT_EQ(line["variables"], (nlohmann::json{{"pageName", "P Q"}}));
    EXPECT_EQ(line["contextData"], (nlohmann::json{{"a.b", "\xC3\xA9"}}));

    auto bad = client.Get("/b/ss/rs/0/WINU-4.0.0/s9?AQB=1&ndh=1&x=%&AQE=1");
    ASSERT_TRUE(bad);
    EXPECT_EQ(bad->status, 400);
    EXPECT_EQ(child.Terminate(), 0);
    EXPECT_NE(child.ErrText().find("velmora-collector: 400 for GET /b/ss/rs/0/WINU-4.0.0/s9?AQB=1&ndh=1&x=%&AQE=1: "
                                   "broken percent-encoding"),
              std::string::npos);
}

TEST(CollectorProgram, RefusesUnknownFlagsWithUsage) {
    Child child({"--port", "0", "--colour"});
    EXPECT_EQ(child.Wait(), 2);
    std::string err = child.ErrText();
    EXPECT_NE(err.find("velmora-collector: unknown argument \"--colour\""), std::string::npos) << err;
    EXPECT_NE(err.find("usage: velmora-collector"), std::string::npos) << err;
}

#else

TEST(CollectorProgram, PrintsItsAddressThenOneJsonLinePerHitAndStopsOnSigterm) {
    GTEST_SKIP() << "velmora-collector is not built in this configuration";
}

#endif

}  // namespace
