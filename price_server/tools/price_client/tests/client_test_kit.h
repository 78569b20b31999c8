#pragma once

#include "server/tests/child_process.h"
#include "server/tests/program_test_kit.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::price_client
{

/// What a client process has said when it has ended.
struct Ended
{
    int exitCode = -1;
    std::string output;
    std::string errors;
};

/// A price_server with a simulated market on a free port of this machine.
class TestServer
{
public:
    struct Settings
    {
        std::string token; ///< empty: nobody has to show one
        bool isEncrypted = false;
    };

    TestServer();
    explicit TestServer(Settings settings);
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    void Stop();
    /// On the same port.
    void StartAgain();

    /// With "localhost" instead of the address, if asked for.
    std::string GetUrl(const std::string& host = "127.0.0.1") const;
    /// The certificate is for the address 127.0.0.1, not for a name.
    std::string GetCertificateFile() const { return m_folder.GetPath() + "/certificate.pem"; }
    const TemporaryFolder& GetFolder() const noexcept { return m_folder; }

private:
    void Start();

    const Settings m_settings;
    TemporaryFolder m_folder;
    std::string m_port = "0"; ///< 0 until it is known
    std::unique_ptr<ChildProcess> m_process;
};

/// A client of it. `environment` is of the form NAME=value.
std::unique_ptr<ChildProcess> StartClient(const std::string& url, const std::vector<std::string>& arguments,
                                          const std::vector<std::string>& environment = {},
                                          ChildProcess::Output output = ChildProcess::Output::Pipe);
Ended RunClient(const std::string& url, const std::vector<std::string>& arguments,
                const std::vector<std::string>& environment = {});
/// A line for bash, in which $CLIENT is the client.
std::unique_ptr<ChildProcess> StartShell(const std::string& url, const std::string& line);
Ended RunShell(const std::string& url, const std::string& line);

/// Reads the output until something holds; false: not within a minute.
bool WaitUntil(ChildProcess& process, const std::function<bool()>& holds);
/// Reads until the output has the text so many times; false: not within a minute.
bool WaitForCount(ChildProcess& process, const std::string& text, std::size_t count);
std::size_t Count(const std::string& text, const std::string& what);

/// Writes certificate.pem and key.pem: self-signed, for 127.0.0.1.
void WriteTlsFiles(const TemporaryFolder& folder);

} // namespace ps_ns::price_client
