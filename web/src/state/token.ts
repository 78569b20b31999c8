const key = "price-server.token";

/** The token lives as long as the tab. */
export function storedToken(): string | null {
    try {
        return sessionStorage.getItem(key);
    } catch {
        return null;
    }
}

export function storeToken(token: string | null): void {
    try {
        if (token === null) sessionStorage.removeItem(key);
        else sessionStorage.setItem(key, token);
    } catch {
        // Kept in memory only.
    }
}
