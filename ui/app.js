// KroAgent end-node page. Every value from the agent reaches the page through textContent or
// attributes set one by one, never through markup, so a product name cannot inject anything.
(function () {
  "use strict";

  // Relative to the page's base (index.html names /arbalo/), so the page works at "/" too.
  var STATUS_URL = "Requests/getAgentStatus.json";
  var PRODUCTS_URL = "Requests/getInstalledProducts.json";
  var ALERTS_URL = "Requests/getAlerts.json";
  // Present only when the agent runs with --demo; otherwise the agent answers 404.
  var RAISE_ALERT_URL = "Requests/raiseTestAlert.json";
  // The store keeps every alert until it is purged; beyond the newest few a table helps nobody,
  // so only these are asked for; the answer's "total" and "unsent" count the rest.
  var ALERTS_SHOWN = 50;
  // An agent that accepts the connection but never answers must not leave a card spinning.
  var TIMEOUT_MS = 10000;

  function $(id) { return document.getElementById(id); }

  function el(tag, className, text) {
    var node = document.createElement(tag);
    if (className) node.className = className;
    if (text !== undefined && text !== null) node.textContent = String(text);
    return node;
  }

  function setText(id, text) { $(id).textContent = text; }

  function clear(node) {
    while (node.firstChild) node.removeChild(node.firstChild);
  }

  function show(id, visible) { $(id).hidden = !visible; }

  function isObject(value) {
    return value !== null && typeof value === "object" && !Array.isArray(value);
  }

  function text(value) {
    if (value === undefined || value === null) return "";
    return String(value);
  }

  // An error whose message is already the sentence to show.
  function reason(message) {
    var err = new Error(message);
    err.explained = true;
    return err;
  }

  // Resolves with the parsed body, or rejects with an error saying what went wrong; an HTTP
  // error keeps its status, since a missing routine is told apart from a failing agent by it.
  function fetchJson(url, method, body) {
    var controller = typeof AbortController === "function" ? new AbortController() : null;
    var timer = controller ? setTimeout(function () { controller.abort(); }, TIMEOUT_MS) : null;
    var options = { method: method || "GET", cache: "no-store",
      headers: { Accept: "application/json" } };
    if (body !== undefined) options.body = JSON.stringify(body);
    if (controller) options.signal = controller.signal;

    return fetch(url, options).then(function (response) {
      if (!response.ok) {
        var err = reason("the agent answered HTTP " + response.status +
          (response.statusText ? " " + response.statusText : ""));
        err.status = response.status;
        throw err;
      }
      return response.text();
    }).then(function (body) {
      try {
        return JSON.parse(body);
      } catch (e) {
        throw reason("the agent's answer is not valid JSON");
      }
    }).catch(function (err) {
      if (err && err.explained) throw err;
      if (err && err.name === "AbortError") {
        throw reason("the agent did not answer within " + TIMEOUT_MS / 1000 + " seconds");
      }
      throw reason("the agent could not be reached (network error)");
    }).finally(function () {
      if (timer) clearTimeout(timer);
    });
  }

  function showError(messageId, what, reason) {
    var node = $(messageId);
    node.className = "state error";
    node.textContent = "Could not load " + what + ": " + reason +
      ". The agent may not be running.";
    node.hidden = false;
  }

  function showLoading(messageId) {
    var node = $(messageId);
    node.className = "state loading";
    node.textContent = "Loading…";
    node.hidden = false;
  }

  // ---- Agent card -------------------------------------------------------------------------

  function formatHeartbeat(value) {
    var raw = text(value).trim();
    if (!/^\d+$/.test(raw) || Number(raw) === 0) return "never";
    var date = new Date(Number(raw) * 1000);
    if (isNaN(date.getTime())) return "never";
    return date.toLocaleString();
  }

  function fillPorts(node, list) {
    clear(node);
    var ports = text(list).split(",").map(function (p) { return p.trim(); })
      .filter(function (p) { return p !== ""; });
    if (ports.length === 0) {
      node.appendChild(el("span", "dim", "none"));
      return;
    }
    ports.forEach(function (port) {
      // The agent marks its TLS ports with a trailing "s".
      var tls = /s$/i.test(port);
      var chip = el("span", tls ? "chip tls" : "chip", tls ? port.slice(0, -1) + " · TLS" : port);
      node.appendChild(chip);
    });
  }

  function renderAgent(status) {
    if (!isObject(status)) throw new Error("the agent's answer is not a JSON object");

    setText("agent-version", text(status.version) || "unknown");

    var port = $("agent-port");
    clear(port);
    port.appendChild(document.createTextNode(text(status.agentPort) || "unknown"));
    port.appendChild(document.createTextNode(" "));
    port.appendChild(status.agentSSL === true
      ? el("span", "chip tls", "TLS")
      : el("span", "chip", "plain HTTP"));

    setText("agent-ui-port", text(status.uiPort) || "unknown");
    fillPorts($("agent-listening"), status.listeningPorts);

    var server = $("agent-server");
    clear(server);
    server.appendChild(status.serverRunning === true
      ? el("span", "badge ok", "Running")
      : el("span", "badge bad", "Stopped"));

    setText("agent-heartbeat", formatHeartbeat(status.lastHeartBeat));

    var system = $("agent-system");
    clear(system);
    if (text(status.systemName)) {
      system.textContent = text(status.systemName);
    } else {
      system.appendChild(el("span", "dim", "not set"));
    }

    show("agent-message", false);
    show("agent-facts", true);
  }

  function loadAgent() {
    showLoading("agent-message");
    show("agent-facts", false);
    return fetchJson(STATUS_URL).then(renderAgent).catch(function (err) {
      show("agent-facts", false);
      showError("agent-message", "the agent status", err.message);
    });
  }

  // ---- Products card ----------------------------------------------------------------------

  // Only links that stay on this site or are plain web addresses; a "//" from a product
  // without a url would otherwise point at another host.
  function safeHref(url) {
    var value = text(url).trim();
    if (/^\/[^\/\\]/.test(value) || value === "/") return value;
    if (/^https?:\/\/[^\s]+$/i.test(value)) return value;
    return null;
  }

  function productRow(product) {
    var row = el("tr");
    row.appendChild(el("td", "name", text(product.name) || text(product.key)));
    var key = el("td");
    key.appendChild(el("code", null, text(product.key)));
    row.appendChild(key);
    row.appendChild(el("td", "version", text(product.version) || "—"));
    row.appendChild(el("td", "patch", text(product.patchLevel) || "—"));

    var linkCell = el("td", "link");
    var href = safeHref(product.url);
    if (href) {
      var a = el("a", null, href);
      a.setAttribute("href", href);
      linkCell.appendChild(a);
    } else {
      linkCell.appendChild(el("span", "dim", "—"));
    }
    row.appendChild(linkCell);
    return row;
  }

  function renderProducts(report) {
    if (!isObject(report) || !Array.isArray(report.prods)) {
      throw new Error("the agent's answer has no product list");
    }
    var body = $("products-body");
    clear(body);
    report.prods.forEach(function (product) {
      if (isObject(product)) body.appendChild(productRow(product));
    });

    var meta = [];
    if (text(report.root_path)) meta.push("Installed in " + text(report.root_path));
    if (text(report.kro_version)) meta.push("KroAgent " + text(report.kro_version));
    setText("products-meta", meta.join(" · "));
    show("products-meta", meta.length > 0);

    if (body.rows.length === 0) {
      var message = $("products-message");
      message.className = "state empty";
      message.textContent = "No products are installed.";
      message.hidden = false;
      show("products-wrap", false);
    } else {
      show("products-message", false);
      show("products-wrap", true);
    }
  }

  function loadProducts() {
    showLoading("products-message");
    show("products-wrap", false);
    show("products-meta", false);
    return fetchJson(PRODUCTS_URL).then(renderProducts).catch(function (err) {
      show("products-wrap", false);
      show("products-meta", false);
      showError("products-message", "the installed products", err.message);
    });
  }

  // ---- Alerts card ------------------------------------------------------------------------

  function formatSeconds(value) {
    if (typeof value !== "number" || !isFinite(value) || value <= 0) return "unknown";
    var date = new Date(value * 1000);
    return isNaN(date.getTime()) ? "unknown" : date.toLocaleString();
  }

  function plural(count, noun) {
    return count + " " + noun + (count === 1 ? "" : "s");
  }

  // Every alert the agent raises starts with the parameter "system", which tells an operator
  // nothing; the rest is what the raiser had to say.
  function alertParameters(alert) {
    var list = Array.isArray(alert.parameters) ? alert.parameters.map(text) : [];
    if (list.length > 0 && list[0].toLowerCase() === "system") list = list.slice(1);
    return list;
  }

  function alertRow(alert) {
    var row = el("tr");
    var raised = el("td", "raised", formatSeconds(alert.raised));
    // An updated alert travels to the management server again, so its later time matters too.
    if (typeof alert.updated === "number" && typeof alert.raised === "number" &&
        alert.updated > alert.raised) {
      raised.appendChild(el("span", "sub dim", "updated " + formatSeconds(alert.updated)));
    }
    row.appendChild(raised);
    row.appendChild(el("td", "name", text(alert.type) || "—"));
    row.appendChild(el("td", "code", text(alert.code) || "—"));

    var parameters = alertParameters(alert);
    var params = el("td", "params");
    if (parameters.length > 0) {
      params.textContent = parameters.join(" · ");
    } else {
      params.appendChild(el("span", "dim", "—"));
    }
    row.appendChild(params);

    var delivery = el("td", "delivery");
    var badge = alert.sent === true
      ? el("span", "badge ok", "Delivered")
      : el("span", "badge pending", "Pending");
    badge.title = alert.sent === true
      ? "The management server has this alert"
      : "Not yet delivered to the management server";
    delivery.appendChild(badge);
    row.appendChild(delivery);
    return row;
  }

  function count(value, fallback) {
    return typeof value === "number" && isFinite(value) && value >= 0 ? value : fallback;
  }

  function renderAlerts(answer) {
    if (!isObject(answer) || !Array.isArray(answer.alerts)) {
      throw new Error("the agent's answer has no alert list");
    }
    // Newest first, as the agent lists them.
    var alerts = answer.alerts.filter(isObject).slice(0, ALERTS_SHOWN);
    var body = $("alerts-body");
    clear(body);
    alerts.forEach(function (alert) {
      body.appendChild(alertRow(alert));
    });

    // The counts are of the whole store; the list holds only its newest alerts.
    var total = Math.max(count(answer.total, alerts.length), alerts.length);
    var pending = count(answer.unsent,
      alerts.filter(function (alert) { return alert.sent !== true; }).length);
    if (total === 0) {
      var message = $("alerts-message");
      message.className = "state empty";
      message.textContent = "No alerts are stored on this machine.";
      message.hidden = false;
      show("alerts-wrap", false);
      show("alerts-meta", false);
      return;
    }
    var meta = [total > alerts.length
      ? "Showing the newest " + alerts.length + " of " + total.toLocaleString() + " alerts"
      : plural(total, "alert")];
    meta.push(pending > 0
      ? pending.toLocaleString() + " not yet delivered to the management server"
      : "all delivered to the management server");
    setText("alerts-meta", meta.join(" · "));
    show("alerts-meta", true);
    show("alerts-message", false);
    show("alerts-wrap", true);
  }

  // A refresh and a raised alert can each start a load; only the latest may fill the card.
  var alertsLoads = 0;

  function loadAlerts() {
    var ticket = ++alertsLoads;
    showLoading("alerts-message");
    show("alerts-wrap", false);
    show("alerts-meta", false);
    return fetchJson(ALERTS_URL, "POST", { count: ALERTS_SHOWN }).then(function (answer) {
      if (ticket === alertsLoads) renderAlerts(answer);
    }).catch(function (err) {
      if (ticket !== alertsLoads) return;
      show("alerts-wrap", false);
      show("alerts-meta", false);
      if (err.status === 404) {
        // The page came from this agent, so it runs; only its alerts store is missing.
        var node = $("alerts-message");
        node.className = "state error";
        node.textContent = "Could not load the alerts: this agent does not offer them (HTTP 404).";
        node.hidden = false;
      } else {
        showError("alerts-message", "the alerts", err.message);
      }
    });
  }

  function notify(kind, message) {
    var node = $("alerts-notice");
    node.className = "notice " + kind;
    node.textContent = message;
  }

  function raiseTestAlert() {
    var button = $("raise-alert");
    button.disabled = true;
    notify("info", "Raising a test alert…");
    return fetchJson(RAISE_ALERT_URL, "POST").then(function (answer) {
      if (isObject(answer) && answer.result === "success") {
        notify("ok", "Test alert raised at " + new Date().toLocaleTimeString() +
          "; the agent reports it to the management server at once. Refresh shows when it " +
          "has been delivered.");
      } else {
        var status = isObject(answer) && text(answer.status)
          ? " (status " + text(answer.status) + ")" : "";
        notify("error", "The agent could not raise the test alert" + status + ".");
      }
      return loadAlerts();
    }, function (err) {
      if (err.status === 404) {
        notify("info", "Test alerts are available only when the agent runs with --demo.");
      } else {
        notify("error", "Could not raise a test alert: " + err.message + ".");
      }
    }).then(function () {
      button.disabled = false;
    });
  }

  // ---- Page -------------------------------------------------------------------------------

  function refresh() {
    var button = $("refresh");
    button.disabled = true;
    return Promise.all([loadAgent(), loadProducts(), loadAlerts()]).then(function () {
      button.disabled = false;
      setText("updated", "Updated " + new Date().toLocaleTimeString());
    });
  }

  $("refresh").addEventListener("click", refresh);
  $("raise-alert").addEventListener("click", raiseTestAlert);
  refresh();
})();
