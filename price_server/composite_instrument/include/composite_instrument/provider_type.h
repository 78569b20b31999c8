#pragma once

namespace ps_ns
{

/// Who serves the prices of an instrument. Any value but Mds counts as the ZEL provider.
struct ProviderType
{
    enum Value : int
    {
        Zel = 0, ///< the network provider
        Mds = 1  ///< the in-process provider
    };
};

/// What a provider is asked for.
struct ProviderFunction
{
    enum Value : int
    {
        Prices = 0
    };
};

} // namespace ps_ns
