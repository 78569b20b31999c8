import { render } from "preact";
import "./styles/tokens.css";
import "./styles/page.css";
import "./styles/panel.css";
import "./styles/dialogs.css";
import "./styles/operations.css";
import "uplot/dist/uPlot.min.css";
import "./styles/chart.css";
import { App } from "./ui/app.tsx";
import { measure } from "./ui/measure.ts";
import { Services, ServicesContext } from "./ui/services.ts";

const services = new Services();
measure(services);
render(
    <ServicesContext.Provider value={services}>
        <App />
    </ServicesContext.Provider>,
    document.getElementById("page")!,
);
services.connection.start();
