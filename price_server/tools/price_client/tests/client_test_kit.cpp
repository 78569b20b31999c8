#include "client_test_kit.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <csignal>
#include <stdexcept>

namespace ps_ns::price_client
{
namespace
{

std::string MakeConfig(const TestServer::Settings& settings, const std::string& port)
{
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<PriceServer>
  <General SkipUnchangedSnapshots="yes"/>
  <Logging level="20" format="text"/>
  <Markets><Market id="1" name="SIM" defaultDepth="10" maxDepth="1000"/></Markets>
  <Providers><Mds><Simulation seed="1" updatesPerSecond="1000"/></Mds></Providers>
  <Gateway address="127.0.0.1" port=")" +
           port + "\">" + (settings.token.empty() ? "" : R"(<Token name="test" file="token"/>)") +
           (settings.isEncrypted ? R"(<Tls certificate="certificate.pem" key="key.pem"/>)" : "") +
           "</Gateway>\n</PriceServer>\n";
}

std::string ReadAll(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_ctrl(bio, BIO_CTRL_INFO, 0, &data);
    return {data, static_cast<std::size_t>(size)};
}

struct Free
{
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};

void AddExtension(X509* certificate, int id, const char* value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, Free> extension(X509V3_EXT_conf_nid(nullptr, &context, id, value));
    X509_add_ext(certificate, extension.get(), -1);
}

} // namespace

void WriteTlsFiles(const TemporaryFolder& folder)
{
    const std::unique_ptr<EVP_PKEY, Free> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    const std::unique_ptr<X509, Free> certificate(X509_new());
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86400);
    X509_NAME* const name = X509_get_subject_name(certificate.get());
    const std::string common = "price_client test";
    X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(common.data()), static_cast<int>(common.size()),
                               -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_set_pubkey(certificate.get(), key.get());
    AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(certificate.get(), NID_subject_alt_name, "IP:127.0.0.1");
    const std::unique_ptr<BIO, Free> certificateText(BIO_new(BIO_s_mem()));
    const std::unique_ptr<BIO, Free> keyText(BIO_new(BIO_s_mem()));
    const bool isGood = X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0 &&
                        PEM_write_bio_X509(certificateText.get(), certificate.get()) == 1 &&
                        PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
    if (!isGood)
    {
        throw std::runtime_error("no certificate can be made");
    }
    folder.Write("certificate.pem", ReadAll(certificateText.get()));
    folder.Write("key.pem", ReadAll(keyText.get()));
}

TestServer::TestServer()
    : TestServer(Settings())
{
}

TestServer::TestServer(Settings settings)
    : m_settings(std::move(settings))
{
    if (!m_settings.token.empty())
    {
        m_folder.Write("token", m_settings.token + "\n");
    }
    if (m_settings.isEncrypted)
    {
        WriteTlsFiles(m_folder);
    }
    Start();
}

void TestServer::Start()
{
    const std::string config = m_folder.Write("server.xml", MakeConfig(m_settings, m_port));
    const std::string place = "page and prices at http";
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{"sh", "-c", "exec \"$0\" --config \"$1\" 2>&1", PRICE_SERVER_BINARY, config});
    if (!m_process->WaitForOutput(place) || !m_process->WaitForOutput("/\n"))
    {
        throw std::runtime_error("the server does not start: " + m_process->GetOutput());
    }
    const std::string& said = m_process->GetOutput();
    const std::size_t port = said.find("127.0.0.1:", said.find(place)) + std::string("127.0.0.1:").size();
    m_port = said.substr(port, said.find('/', port) - port);
}

void TestServer::Stop()
{
    m_process->Signal(SIGTERM);
    m_process->WaitForExit();
}

void TestServer::StartAgain()
{
    Start();
}

std::string TestServer::GetUrl(const std::string& host) const
{
    return (m_settings.isEncrypted ? "https://" : "http://") + host + ":" + m_port;
}

std::unique_ptr<ChildProcess> StartClient(const std::string& url, const std::vector<std::string>& arguments,
                                          const std::vector<std::string>& environment, ChildProcess::Output output)
{
    std::vector<std::string> all{"-u", "PRICE_SERVER_TOKEN", "PRICE_SERVER_URL=" + url};
    all.insert(all.end(), environment.begin(), environment.end());
    all.emplace_back(PRICE_CLIENT_BINARY);
    all.insert(all.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(all, output);
}

Ended RunClient(const std::string& url, const std::vector<std::string>& arguments,
                const std::vector<std::string>& environment)
{
    const auto process = StartClient(url, arguments, environment);
    const int exitCode = process->WaitForExit();
    return {exitCode, process->GetOutput(), process->GetErrors()};
}

std::unique_ptr<ChildProcess> StartShell(const std::string& url, const std::string& line)
{
    return std::make_unique<ChildProcess>(std::vector<std::string>{
        "PRICE_SERVER_URL=" + url, std::string("CLIENT=") + PRICE_CLIENT_BINARY, "bash", "-c", line});
}

Ended RunShell(const std::string& url, const std::string& line)
{
    const auto process = StartShell(url, line);
    const int exitCode = process->WaitForExit();
    return {exitCode, process->GetOutput(), process->GetErrors()};
}

std::size_t Count(const std::string& text, const std::string& what)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
    {
        ++count;
    }
    return count;
}

bool WaitUntil(ChildProcess& process, const std::function<bool()>& holds)
{
    const auto deadline = ChildProcess::Clock::now() + std::chrono::minutes(1);
    while (!holds())
    {
        if (ChildProcess::Clock::now() > deadline)
        {
            return false;
        }
        process.ReadFor(std::chrono::milliseconds(20));
    }
    return true;
}

bool WaitForCount(ChildProcess& process, const std::string& text, std::size_t count)
{
    return WaitUntil(process, [&] { return Count(process.GetOutput(), text) >= count; });
}

} // namespace ps_ns::price_client
