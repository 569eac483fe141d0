'use strict';
// The page's link to hxsrvd and its small DOM helpers.
//
// Every request goes through the web server's bridge: one POST of one JSON
// request, answered with the daemon's own reply, whose "result" is "success"
// or the daemon's error text. Anything else (a refusal of the bridge, a
// network failure, a reply that is not JSON) becomes an ApiError with a text
// fit to show the user.
const HX = (() => {
  const API = 'api.cgi';
  // The bridge refuses larger bodies; longer read lists are split.
  const LIMIT = 4096;
  // The bridge gives up on the daemon after 30 s; a request still open
  // well after that has been lost on the way.
  const TIMEOUT = 45000;

  class ApiError extends Error {}

  const size = (text) => new TextEncoder().encode(text).length;
  const body = (method, args) => JSON.stringify({ method, arguments: args });

  async function call(method, args) {
    const text = body(method, args);
    if (size(text) > LIMIT) throw new ApiError(`request too large (${size(text)} bytes)`);
    const abort = new AbortController();
    const timer = setTimeout(() => abort.abort(), TIMEOUT);
    let res;
    let reply = null;
    try {
      res = await fetch(API, {
        method: 'POST',
        headers: { 'Content-Type': 'application/json' },
        body: text,
        cache: 'no-store',
        credentials: 'same-origin',
        signal: abort.signal,
      });
      // The time-out covers the body too: an answer can stall half way.
      reply = await res.json().catch((e) => {
        if (abort.signal.aborted) throw e;
        return null;
      });
    } catch (e) {
      const lost = new ApiError(abort.signal.aborted ? `no answer from the device after ${TIMEOUT / 1000} s`
        : 'no answer from the device (network error)');
      lost.network = true;
      throw lost;
    } finally {
      clearTimeout(timer);
    }
    // The daemon's texts are shown as they are; one of them ends in a newline.
    const result = reply && typeof reply.result === 'string' ? reply.result.trim() : '';
    if (!res.ok) throw new ApiError(`${result || res.statusText || 'refused'} (HTTP ${res.status})`);
    if (!result) throw new ApiError('unreadable answer from the device');
    if (result !== 'success') throw new ApiError(result);
    const out = reply.arguments;
    return out && typeof out === 'object' && !Array.isArray(out) ? out : {};
  }

  // Reads settings (confs) and status items (infos). The answer always has
  // both objects; a list too long for one request is read in parts.
  async function prefGet(confs = [], infos = []) {
    const args = { confs, infos };
    const names = confs.length + infos.length;
    if (size(body('pref-get', args)) <= LIMIT || names < 2) {
      const r = await call('pref-get', args);
      return { confs: r.confs || {}, infos: r.infos || {} };
    }
    const all = [...confs.map((n) => ['c', n]), ...infos.map((n) => ['i', n])];
    const halves = [all.slice(0, names >> 1), all.slice(names >> 1)];
    const pick = (part, kind) => part.filter(([k]) => k === kind).map(([, n]) => n);
    const got = [];
    for (const part of halves) got.push(await prefGet(pick(part, 'c'), pick(part, 'i')));
    return {
      confs: Object.assign({}, ...got.map((g) => g.confs)),
      infos: Object.assign({}, ...got.map((g) => g.infos)),
    };
  }

  // Writes settings in the object's order; values are stored as their JSON
  // text, so a string stays a string. Members that do not fit one request
  // are written one by one.
  async function prefSet(confs) {
    if (size(body('pref-set', { confs })) <= LIMIT) return call('pref-set', { confs });
    for (const [key, value] of Object.entries(confs)) await call('pref-set', { confs: { [key]: value } });
    return {};
  }

  const revalidate = (targets) => call('revalidate', targets);

  // Builds an element; texts are always text nodes, never markup, since
  // SSIDs, host names and labels come from other people's devices.
  function h(tag, props, ...kids) {
    const e = document.createElement(tag);
    for (const [k, v] of Object.entries(props || {})) {
      if (v === undefined || v === null || v === false) continue;
      if (k === 'class') e.className = v;
      else if (k === 'text') e.textContent = v;
      else if (k in e && !k.includes('-')) e[k] = v;
      else e.setAttribute(k, v);
    }
    for (const kid of kids) if (kid !== null && kid !== undefined) e.append(kid);
    return e;
  }

  const $ = (id) => document.getElementById(id);

  // Each section has one error line; several sources (a poll, a button) can
  // have a message in it at once, and each clears only its own.
  function errors(section) {
    const line = document.querySelector(`#${section} .error`);
    const messages = new Map();
    return (source, text) => {
      if (text) messages.set(source, text);
      else messages.delete(source);
      line.textContent = [...messages.values()].join(' — ');
      line.hidden = messages.size === 0;
    };
  }

  // Runs a button's action with the button disabled; a failure lands in the
  // section's error line under the given source, a success clears it.
  async function act(button, report, source, fn) {
    button.disabled = true;
    try {
      await fn();
      report(source, '');
    } catch (e) {
      report(source, e.message || String(e));
      const line = button.closest('section').querySelector('.error');
      if (line && line.scrollIntoView) line.scrollIntoView({ block: 'nearest' });
    } finally {
      button.disabled = false;
    }
  }

  // Names the step that failed: "Saving: internal error". A step that
  // restarts what carries the answer may lose it: lost says what to do then.
  async function step(label, fn, lost) {
    try {
      return await fn();
    } catch (e) {
      throw new ApiError(`${label}: ${e.message}${e.network && lost ? `; ${lost}` : ''}`);
    }
  }

  const sleep = (ms) => new Promise((done) => setTimeout(done, ms));

  return { ApiError, call, prefGet, prefSet, revalidate, h, $, errors, act, step, sleep, size };
})();
