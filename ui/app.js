// KroAgent end-node page. Every value from the agent reaches the page through textContent or
// attributes set one by one, never through markup, so a product name cannot inject anything.
(function () {
  "use strict";

  // Relative, so the page works wherever the agent mounts it (normally /arbalo/).
  var STATUS_URL = "Requests/getAgentStatus.json";
  var PRODUCTS_URL = "Requests/getInstalledProducts.json";
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

  // Resolves with the parsed body, or rejects with an error saying what went wrong.
  function fetchJson(url) {
    var controller = typeof AbortController === "function" ? new AbortController() : null;
    var timer = controller ? setTimeout(function () { controller.abort(); }, TIMEOUT_MS) : null;
    var options = { cache: "no-store", headers: { Accept: "application/json" } };
    if (controller) options.signal = controller.signal;

    return fetch(url, options).then(function (response) {
      if (!response.ok) {
        throw reason("the agent answered HTTP " + response.status +
          (response.statusText ? " " + response.statusText : ""));
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

  // ---- Page -------------------------------------------------------------------------------

  function refresh() {
    var button = $("refresh");
    button.disabled = true;
    return Promise.all([loadAgent(), loadProducts()]).then(function () {
      button.disabled = false;
      setText("updated", "Updated " + new Date().toLocaleTimeString());
    });
  }

  $("refresh").addEventListener("click", refresh);
  refresh();
})();
