import { defineConfig } from "vite";

const server = process.env.PRICE_SERVER_URL ?? "http://127.0.0.1:8080";

// Everything stays a file of its own: the server's content-security policy allows no inline script or style,
// and no data address but for images.
export default defineConfig({
    base: "./",
    build: {
        target: "es2022",
        modulePreload: { polyfill: false },
        assetsInlineLimit: 0,
        cssCodeSplit: false,
        reportCompressedSize: true,
    },
    server: {
        proxy: {
            "/ws": { target: server, ws: true },
            "/api": server,
            "/-": server,
            "/metrics": server,
        },
    },
});
