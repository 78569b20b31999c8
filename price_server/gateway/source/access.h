#pragma once

#include "gateway/gateway_options.h"

#include <optional>
#include <string>
#include <string_view>

namespace ps_ns::gateway
{

/// Who somebody is, once known.
struct Identity
{
    std::string name; ///< a token's, or "anybody"
    Rights rights;
};

/// Decides who may come in, and for what.
///
/// Threads: any; constant.
class AccessControl
{
public:
    explicit AccessControl(const GatewayOptions& options);

    bool DemandsToken() const noexcept { return !m_tokens.empty(); }
    /// Who everybody is when no token is demanded.
    Identity GetAnybody() const { return {"anybody", Rights{}}; }
    /// The token's owner; every known token is compared in full, in a time that does not depend on where they differ.
    std::optional<Identity> Check(std::string_view token) const;
    /// The same for the value of an Authorization header.
    std::optional<Identity> CheckHeader(std::string_view authorization) const;
    /// May a page of this origin open a session? `origin` empty: the client is no browser. `host`: the Host header.
    bool AllowsOrigin(std::string_view origin, std::string_view host) const;
    /// May a request with this Host header be served? Keeps pages of other sites from reaching a server on loopback
    /// under a name of theirs.
    bool AllowsHost(std::string_view host) const;

private:
    const std::vector<Token> m_tokens;
    const std::vector<std::string> m_origins;
    const std::string m_scheme;
    const std::string m_address;
    const bool m_isOnLoopback;
};

/// True for an address that only this machine reaches.
bool IsLoopback(const std::string& address);

} // namespace ps_ns::gateway
