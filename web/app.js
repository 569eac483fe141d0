'use strict';
// The five sections of the console. Everything shown is read from the
// daemon, everything changed is written to it; the page keeps no settings.
(() => {
  // Inside another site's frame, a click meant for that site could press
  // Reboot or Factory default here.
  if (window.top !== window.self) {
    document.body.textContent = 'The console opens only as a page of its own.';
    return;
  }
  const { prefGet, prefSet, revalidate, h, $, errors, act, step, sleep, size } = HX;

  const err = {};
  for (const s of ['status', 'wifi', 'internet', 'storage', 'system']) err[s] = errors(s);

  const arr = (v) => (Array.isArray(v) ? v : []);
  const str = (v) => (typeof v === 'string' ? v : v === undefined || v === null ? '' : String(v));
  const known = (v) => v !== undefined && v !== null && v !== '' && v !== 'N/A';
  const option = (value, label) => h('option', { value, text: label });
  const control = /[\x00-\x1f\x7f]/;

  // Re-renders a list only when its data changed, so that a password being
  // typed into it or a focused button survives the poll.
  const shown = new Map();
  function changed(id, data) {
    const key = JSON.stringify(data);
    if (shown.get(id) === key) return false;
    shown.set(id, key);
    return true;
  }

  function duration(seconds) {
    const s = Number(seconds);
    if (!Number.isFinite(s)) return '';
    if (s <= 0) return 'expired';
    const d = Math.floor(s / 86400), hr = Math.floor((s % 86400) / 3600), m = Math.floor((s % 3600) / 60);
    return d ? `${d} d ${hr} h` : hr ? `${hr} h ${m} min` : `${m} min`;
  }

  // ---- Polling: one request every few seconds feeds every section.

  const POLL_CONFS = ['wan_type', 'wan_sta_ssid', 'ap_profile'];
  const POLL_INFOS = ['s_time', 'fw_version', 'p_model', 'bat_cap', 'bat_charging', 's_waninfo',
    's_staconninfo', 's_laninfo', 's_dhcpleases', 's_stalist', 'disk_list', 'disk_probe',
    'sdcard_status', 'sd_backup_logs', 'backup_stat'];
  const SLOW = 5000, FAST = 2000;

  let timer = 0, inFlight = false, again = false, joining = null, copying = false;
  // The two forms are read once (and again after Apply), never by the poll,
  // so that the user's edits stay; a failed read is retried with the poll.
  let wifiLoaded = false, loginLoaded = false, loading = null;
  function loadForms() {
    if (loading || (wifiLoaded && loginLoaded)) return;
    loading = Promise.all([wifiLoaded || loadWifi(), loginLoaded || loadLogin()]).finally(() => { loading = null; });
  }

  function kick() {
    if (inFlight) {
      again = true;
      return;
    }
    clearTimeout(timer);
    poll();
  }

  async function poll() {
    inFlight = true;
    again = false;
    try {
      if (!document.hidden) {
        const { confs, infos } = await prefGet(POLL_CONFS, POLL_INFOS);
        renderStatus(infos, confs);
        renderInternet(infos, confs);
        renderStorage(infos);
        for (const section of ['status', 'internet', 'storage']) err[section]('poll', '');
        $('st-updated').textContent = `Updated ${new Date().toLocaleTimeString()}`;
      }
    } catch (e) {
      // The three sections all show what this poll reads.
      for (const section of ['status', 'internet', 'storage']) err[section]('poll', `Refresh: ${e.message}`);
    } finally {
      inFlight = false;
      timer = setTimeout(poll, again ? 0 : joining || copying ? FAST : SLOW);
    }
    loadForms();
  }

  document.addEventListener('visibilitychange', () => document.hidden || kick());

  // ---- Status

  const SYNC = {
    0: 'No backup since the device started',
    1: 'Starting',
    2: 'Copying',
    3: 'Ended without completing',
    4: 'Completed',
    5: 'Cancelled',
  };

  function renderStatus(i, c) {
    const cap = parseInt(i.bat_cap, 10);
    $('st-battery-meter').value = Number.isFinite(cap) ? cap : 0;
    $('st-battery').textContent = Number.isFinite(cap)
      ? `${cap} %${i.bat_charging ? ` · ${i.bat_charging}` : ''}` : 'Unknown';

    const wan = i.s_waninfo || {};
    const parts = [];
    if (c.wan_type === 'none') parts.push('Off (access point only)');
    else {
      parts.push(str(wan.state) || 'Unknown');
      if (c.wan_type) parts.push(MODES[c.wan_type] || c.wan_type);
      if (c.wan_sta_ssid) parts.push(`hotspot ${c.wan_sta_ssid}`);
      if (known(wan.ip)) parts.push(`address ${wan.ip}`);
    }
    $('st-wan').textContent = parts.join(' · ');

    const lan = i.s_laninfo || {};
    $('st-lan').textContent = known(lan.ip) ? `${lan.ip}${known(lan.netmask) ? ` / ${lan.netmask}` : ''}` : 'Unknown';

    const sd = i.sdcard_status === 'in' ? 'Inserted' : i.sdcard_status === 'out' ? 'Not inserted' : 'Unknown';
    const task = arr(i.backup_stat)[0];
    $('st-sd').textContent = task && (task.status === '1' || task.status === '2')
      ? `${sd} · backup ${SYNC[task.status].toLowerCase()} ${task.prog} %` : sd;

    const logs = i.sd_backup_logs || {};
    const last = arr(logs.log_list).find((l) => l.id === logs.log_id_latest && logs.log_num !== '0');
    $('st-backup').textContent = last
      ? `#${last.id} ${last.result} · ${last.file_count} files · ${last.des}` : 'None recorded';

    $('st-fw').textContent = str(i.fw_version) || 'Unknown';
    $('sys-fw').textContent = str(i.fw_version) || 'Unknown';
    const secs = Number(i.s_time);
    $('st-time').textContent = i.s_time && Number.isFinite(secs) ? new Date(secs * 1000).toLocaleString() : 'Unknown';
    if (i.p_model) {
      $('model').textContent = str(i.p_model);
      $('sys-model').textContent = str(i.p_model);
      document.title = `${i.p_model} web console`;
    }

    renderClients(i.s_dhcpleases, i.s_stalist);
    renderDiskSummary(i.disk_list);
  }

  // One row per client: its DHCP lease and, while it is associated with
  // the access point, its Wi-Fi signal.
  function renderClients(leases, stations) {
    const rows = new Map();
    for (const l of arr(leases)) {
      const mac = str(l.mac).toLowerCase();
      const name = str(l.hostname) === '*' ? '' : str(l.hostname);
      rows.set(mac, { name, ip: str(l.ipaddr), mac, signal: '', left: duration(l.expires) });
    }
    for (const s of arr(stations)) {
      const mac = str(s.mac).toLowerCase();
      const row = rows.get(mac) || { name: '', ip: '', mac, signal: '', left: '' };
      row.signal = s.rssi ? `${s.rssi} dBm` : '';
      rows.set(mac, row);
    }
    const body = $('st-clients').tBodies[0];
    if (!changed('clients', [...rows.values()])) return;
    body.replaceChildren(...[...rows.values()].map((r) => h('tr', null,
      h('td', { text: r.name || '(no name)' }), h('td', { text: r.ip || '–' }),
      h('td', { text: r.mac, class: 'mono' }), h('td', { text: r.signal || 'not on Wi-Fi' }),
      h('td', { text: r.left || '–' }))));
    if (!rows.size) body.append(h('tr', null, h('td', { colSpan: 5, class: 'muted', text: 'No clients.' })));
  }

  function renderDiskSummary(list) {
    const disks = arr(list && list.disk_detail);
    if (!changed('st-disks', list)) return;
    const ul = $('st-disks');
    ul.replaceChildren(...disks.map((d) => h('li', null,
      h('strong', { text: str(d.disk_name) }), ` ${str(d.disk_vendor).trim()} · ${str(d.total_capacity)}`,
      ...arr(d.partition_detail).map((p) => h('div', {
        class: 'muted small',
        text: `${str(p.label)}: ${str(p.used)} used of ${str(p.capacity)}, ${str(p.avai)} free (${str(p.type)})`,
      })))));
    if (!disks.length) ul.append(h('li', { class: 'muted', text: list === '' ? 'Disk list unavailable.' : 'No disk.' }));
  }

  // ---- Wi-Fi access point

  const WPA_MODES = ['wpa2psk', 'wpapskwpa2pskmixed', 'wpapsk'];
  const CIPHERS = ['aes', 'tkipaesmixed', 'tkip'];
  const CH5 = [36, 40, 44, 48, 149, 153, 157, 161, 165];
  // The usual travel countries; a stored code not listed is offered too.
  const COUNTRIES = [['US', 'United States'], ['CA', 'Canada'], ['MX', 'Mexico'], ['BR', 'Brazil'],
    ['GB', 'United Kingdom'], ['FR', 'France'], ['DE', 'Germany'], ['NL', 'Netherlands'],
    ['CH', 'Switzerland'], ['ES', 'Spain'], ['IT', 'Italy'], ['SE', 'Sweden'], ['TR', 'Turkey'],
    ['AE', 'United Arab Emirates'], ['ZA', 'South Africa'], ['IN', 'India'], ['CN', 'China'],
    ['KR', 'South Korea'], ['JP', 'Japan'], ['SG', 'Singapore'], ['AU', 'Australia'], ['NZ', 'New Zealand']];
  const WIFI_KEYS = ['wl_ssid', 'wl_security', 'wl_wpa_auth_mode', 'wl_wpa_encryption', 'wl_wpa_key',
    'wl_wep_key_index', 'wl_wep_key0', 'wl_wep_key1', 'wl_wep_key2', 'wl_wep_key3', 'wl_band',
    'wl_channel', 'wl_channel_5g', 'wl_channel_list', 'wl_country'];

  let wifi = {};
  // The password field serves WPA and WEP; each kind keeps its own text.
  const keys = { wpa: '', wep: '' };
  const keyKind = (mode) => (mode === 'wep' ? 'wep' : mode === 'none' ? 'none' : 'wpa');
  let kind = 'wpa';

  function wepIndex() {
    const n = parseInt(wifi.wl_wep_key_index, 10);
    return n >= 0 && n <= 3 ? n : 0;
  }

  function fillChannels() {
    const band = $('wifi-band').value;
    const key = band === '5GHz' ? 'wl_channel_5g' : 'wl_channel';
    const sel = $('wifi-channel');
    const current = sel.dataset.band === band ? sel.value : str(wifi[key]) || '0';
    const list = band === '5GHz' ? CH5 : arr(wifi.wl_channel_list).filter((n) => n >= 1 && n <= 14);
    const chans = (list.length ? list : [1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11]).map(String);
    if (current !== '0' && !chans.includes(current)) chans.push(current);
    sel.replaceChildren(option('0', 'Automatic'), ...chans.map((c) => option(c, c)));
    sel.value = current;
    sel.dataset.band = band;
  }

  function showSecurity() {
    const mode = $('wifi-security').value;
    const next = keyKind(mode);
    if (next !== kind) {
      if (kind !== 'none') keys[kind] = $('wifi-key').value;
      if (next !== 'none') $('wifi-key').value = keys[next];
      kind = next;
    }
    for (const e of document.querySelectorAll('#wifi .wpa-only')) e.hidden = kind !== 'wpa';
    for (const e of document.querySelectorAll('#wifi .key-only')) e.hidden = kind === 'none';
    $('wifi-key-hint').textContent = kind === 'wep'
      ? '5 or 13 characters, or 10 or 26 hexadecimal digits' : '8 to 63 characters';
  }

  async function loadWifi() {
    try {
      const { confs: c } = await prefGet(WIFI_KEYS);
      wifi = c;
      $('wifi-ssid').value = str(c.wl_ssid);
      const sec = str(c.wl_security);
      const mode = sec === 'none' || sec === 'wep' ? sec
        : WPA_MODES.includes(c.wl_wpa_auth_mode) ? c.wl_wpa_auth_mode : 'wpa2psk';
      $('wifi-security').value = mode;
      $('wifi-cipher').value = CIPHERS.includes(c.wl_wpa_encryption) ? c.wl_wpa_encryption : 'aes';
      keys.wpa = str(c.wl_wpa_key);
      keys.wep = str(c[`wl_wep_key${wepIndex()}`]);
      kind = keyKind(mode);
      $('wifi-key').value = kind === 'none' ? '' : keys[kind];
      $('wifi-band').value = c.wl_band === '5GHz' ? '5GHz' : '2.4GHz';
      $('wifi-channel').dataset.band = '';
      fillChannels();
      const country = str(c.wl_country).toUpperCase();
      const list = COUNTRIES.some(([code]) => code === country) || !country
        ? COUNTRIES : [[country, country], ...COUNTRIES];
      $('wifi-country').replaceChildren(...list.map(([code, name]) => option(code, `${name} (${code})`)));
      $('wifi-country').value = country || 'US';
      showSecurity();
      wifiLoaded = true;
      $('wifi-apply').disabled = false;
      err.wifi('load', '');
    } catch (e) {
      err.wifi('load', `Reading the settings: ${e.message}`);
    }
  }

  // The access point's file quotes its name and key as they are: a double
  // quote or a backslash in them would end or escape the value there.
  const quoting = /["\\]/;

  function checkSsid(ssid, what, quoted) {
    if (!ssid || size(ssid) > 32) throw new Error(`${what}: 1 to 32 bytes`);
    if (control.test(ssid)) throw new Error(`${what}: no line breaks or control characters`);
    if (quoted && quoting.test(ssid)) throw new Error(`${what}: no double quotes or backslashes`);
  }

  // Both configuration files quote a WPA key as a pass phrase (8 to 63
  // characters); 64 hexadecimal digits would be read as a too long one.
  function checkKey(kindOf, key) {
    if (kindOf === 'wpa' && !/^[\x20-\x7e]{8,63}$/.test(key)) {
      throw new Error('Password: 8 to 63 plain characters (letters, digits, punctuation)');
    }
    if (kindOf === 'wep' && !/^[\x20-\x7e]{5}$|^[\x20-\x7e]{13}$|^[0-9a-fA-F]{10}$|^[0-9a-fA-F]{26}$/.test(key)) {
      throw new Error('WEP key: 5 or 13 characters, or 10 or 26 hexadecimal digits');
    }
  }

  async function applyWifi() {
    $('wifi-ok').textContent = '';
    const ssid = $('wifi-ssid').value;
    checkSsid(ssid, 'Network name', true);
    const mode = $('wifi-security').value;
    const key = $('wifi-key').value;
    checkKey(keyKind(mode), key);
    if (quoting.test(key)) throw new Error('Password: no double quotes or backslashes');
    const band = $('wifi-band').value;
    const confs = { wl_ssid: ssid };
    if (mode === 'none' || mode === 'wep') confs.wl_security = mode;
    if (mode === 'wep') confs[`wl_wep_key${wepIndex()}`] = key;
    if (keyKind(mode) === 'wpa') {
      Object.assign(confs, {
        wl_security: 'wpapsk/wpa2psk', wl_wpa_auth_mode: mode,
        wl_wpa_encryption: $('wifi-cipher').value, wl_wpa_key: key,
      });
    }
    confs.wl_band = band;
    confs[band === '5GHz' ? 'wl_channel_5g' : 'wl_channel'] = $('wifi-channel').value;
    confs.wl_country = $('wifi-country').value;
    await step('Saving', () => prefSet(confs));
    await step('Applying', () => revalidate({ wl: { action: 'restart' } }),
      'the access point restarts: reconnect to it and reload the page');
    $('wifi-ok').textContent = 'Applied. Connected devices reconnect now.';
    await loadWifi();
  }

  // ---- Internet (the station side)

  const MODES = {
    wireless_sta: 'shared, firewall open',
    wireless_sta_private: 'shared, firewall closed',
    wireless_sta_trust: 'station only',
  };
  const TRUST = {
    'Public Bridge Mode': 'wireless_sta',
    'Private Bridge Mode': 'wireless_sta_private',
    'Station Mode': 'wireless_sta_trust',
  };
  // How the scan's security names map to the station's security words.
  const secWord = (security) => (security === 'NONE' ? 'none' : security === 'WEP' ? 'WEP'
    : /-PSK$/.test(security) ? 'wpapsk' : '');
  const SEC_LABEL = { none: 'open', WEP: 'WEP', wpapsk: 'WPA/WPA2' };
  const JOIN_WAIT = 90000;

  let wanType = '', saved = [];

  function renderInternet(i, c) {
    wanType = str(c.wan_type);
    const wan = i.s_waninfo || {};
    const link = i.s_staconninfo || {};
    let state = str(wan.state);
    // For the private mode the WAN state always reads Disconnected; the
    // station's own link tells the truth there.
    if (wanType === 'wireless_sta_private' && link.state === 'connected') state = 'Connected';
    $('sta-state').textContent = state || 'Unknown';
    let detail = '';
    if (state === 'Connected') {
      const name = link.ssid || c.wan_sta_ssid;
      detail = [name && `to ${name}`, known(wan.ip) && `address ${wan.ip}`,
        link.signal && `signal ${link.signal} dBm`].filter(Boolean).join(' · ');
      if (joining) err.internet('join', '');
      joining = null;
    } else if (joining) {
      if (Date.now() > joining.until) {
        err.internet('join', `Join: no link to ${joining.ssid} after ${JOIN_WAIT / 1000} s; check the pass phrase and that the hotspot is in range`);
        joining = null;
      } else detail = `joining ${joining.ssid}…`;
    } else if (wanType === 'none' || !wanType) detail = 'no hotspot in use (access point only)';
    else if (c.wan_sta_ssid) detail = `hotspot ${c.wan_sta_ssid}`;
    $('sta-detail').textContent = detail;
    if (!$('join-mode').dataset.touched && MODES[wanType]) $('join-mode').value = wanType;
    renderProfiles(c.ap_profile, str(c.wan_sta_ssid));
  }

  function renderProfiles(list, current) {
    const profiles = arr(list).filter((p) => p && typeof p.essid === 'string');
    if (!changed('profiles', [profiles, current])) return;
    const ul = $('profiles');
    ul.replaceChildren(...profiles.map((p, n) => h('li', null,
      h('span', { class: 'grow' }, h('strong', { text: p.essid }),
        h('span', { class: 'muted', text: ` ${SEC_LABEL[secWordOf(p.encrypt)] || str(p.encrypt)}${p.workmode ? ` · ${p.workmode}` : ''}${p.essid === current ? ' · in use' : ''}` })),
      h('button', { type: 'button', class: 'profile-join', id: `profile-join-${n + 1}`, 'data-n': n, text: 'Join' }),
      h('button', { type: 'button', class: 'profile-forget', id: `profile-forget-${n + 1}`, 'data-n': n, text: 'Forget' }))));
    if (!profiles.length) ul.append(h('li', { class: 'muted', text: 'None saved yet.' }));
    saved = profiles;
  }

  const secWordOf = (s) => (/^(wpapsk|WPA)/.test(str(s)) ? 'wpapsk' : /^none/.test(str(s)) ? 'none'
    : /^(on|WEP)/.test(str(s)) ? 'WEP' : '');

  function bars(dbm) {
    const n = dbm >= -55 ? 4 : dbm >= -67 ? 3 : dbm >= -75 ? 2 : 1;
    return h('span', { class: `bars b${n}`, 'aria-hidden': 'true' }, h('i'), h('i'), h('i'), h('i'));
  }

  function renderHotspots(list) {
    const ul = $('hotspots');
    ul.replaceChildren(...list.map((ap) => {
      const signal = parseInt(ap.signal, 10);
      return h('li', null, h('button', {
        type: 'button', class: 'pick', 'data-ssid': str(ap.ssid), 'data-security': str(ap.security),
        'aria-pressed': 'false',
      }, h('strong', { class: 'grow', text: str(ap.ssid) }), bars(signal),
      h('span', { class: 'muted', text: ` ${Number.isFinite(signal) ? `${signal} dBm` : ''} · ${str(ap.security)} · ch ${str(ap.channel)}` })));
    }));
    $('scan-state').textContent = list.length ? `${list.length} found; pick one to join.` : 'No hotspot found.';
  }

  async function scan() {
    $('scan-state').textContent = 'Scanning…';
    try {
      const { infos } = await step('Scan', () => prefGet([], ['s_scanap']));
      if (infos.s_scanap === 'failed') throw new Error('Scan: the scan could not be started');
      const until = Date.now() + 30000;
      for (;;) {
        await sleep(1000);
        const { infos: r } = await step('Scan', () => prefGet([], ['s_scanapresult', 's_aplist']));
        if (r.s_scanapresult && r.s_scanapresult.state === 'done') {
          renderHotspots(arr(r.s_aplist));
          return;
        }
        if (Date.now() > until) throw new Error('Scan: no result after 30 s');
      }
    } catch (e) {
      $('scan-state').textContent = '';
      throw e;
    }
  }

  function pick(button) {
    for (const b of document.querySelectorAll('#hotspots .pick')) b.setAttribute('aria-pressed', String(b === button));
    const word = secWord(button.dataset.security);
    if (!word) throw new Error(`Join: ${button.dataset.security} hotspots (with a user name) cannot be joined`);
    $('join-ssid').value = button.dataset.ssid;
    $('join-sec').value = word;
    showJoinSecurity();
    if (word !== 'none') $('join-pass').focus();
  }

  // The pass phrase field stays in place for an open hotspot; it is ignored.
  function showJoinSecurity() {
    const sec = $('join-sec').value;
    $('join-pass').labels[0].textContent = sec === 'WEP' ? 'WEP key' : 'Pass phrase';
    $('join-pass').placeholder = sec === 'none' ? 'not needed for an open hotspot' : '';
  }

  async function join(ssid, sec, pass, mode) {
    await step('Saving', () => prefSet({ wan_type: mode, wan_sta_ssid: ssid, wan_sta_sec: sec, wan_sta_pass: pass }));
    await step('Joining', () => revalidate({ wan: { action: 'restart' } }),
      mode === 'wireless_sta_trust' ? 'in this mode the access point, and this page with it, goes off once the link is up' : '');
    joining = { ssid, until: Date.now() + JOIN_WAIT };
    $('sta-detail').textContent = `joining ${ssid}…`;
    kick();
  }

  async function joinForm() {
    const ssid = $('join-ssid').value;
    checkSsid(ssid, 'Hotspot name');
    const sec = $('join-sec').value;
    const pass = sec === 'none' ? '' : $('join-pass').value;
    if (sec === 'wpapsk') checkKey('wpa', pass);
    if (sec === 'WEP') checkKey('wep', pass);
    await join(ssid, sec, pass, $('join-mode').value);
  }

  // ---- Storage and backup

  const SYNC_ERRORS = {
    sync_no_sdcard_found: 'no SD card found',
    sync_low_battery_power: 'battery too low: plug in the charger',
    sync_task_busy: 'a copy is already running',
    sync_internal_error: 'the copy could not be set up; is a USB disk plugged in?',
  };
  const LOCK_TEXT = {
    Locked: 'wrong password',
    'Unlocks Exceeded': 'no unlock attempts left',
    Error: 'the drive could not be unlocked',
  };
  const idOf = (disk) => str(disk).replace(/[^A-Za-z0-9]/g, '');

  function renderStorage(i) {
    renderDisks(i.disk_list, i.disk_probe);
    $('sd-state').textContent = i.sdcard_status === 'in' ? 'Inserted'
      : i.sdcard_status === 'out' ? 'Not inserted' : 'Unknown';
    const task = arr(i.backup_stat)[0] || {};
    const prog = Math.max(0, Math.min(100, parseInt(task.prog, 10) || 0));
    copying = task.status === '1' || task.status === '2';
    const done = task.status === '4' ? 100 : prog;
    $('backup-progress').value = done;
    $('backup-status').textContent = `${SYNC[task.status] || 'Unknown'}${copying ? ` · ${prog} %` : ''}`;
    $('backup-cancel').disabled = !copying;
    renderLog(i.sd_backup_logs);
  }

  function renderDisks(list, probe) {
    if (!changed('disks', [list, probe])) return;
    const locks = new Map(arr(probe && probe.lock_info).map((l) => [str(l.disk_name), str(l.lock_state)]));
    const disks = new Map(arr(list && list.disk_detail).map((d) => [str(d.disk_name), d]));
    for (const name of locks.keys()) if (!disks.has(name)) disks.set(name, { disk_name: name });
    const box = $('disks');
    box.replaceChildren(...[...disks.values()].map((d) => {
      const name = str(d.disk_name), id = idOf(name), lock = locks.get(name) || '';
      const parts = arr(d.partition_detail);
      return h('div', { class: 'disk', 'data-disk': name },
        h('p', null, h('strong', { text: name }), ` ${str(d.disk_vendor).trim()}`,
          d.media_type === '1' ? ' (SD card reader)' : '',
          d.total_capacity ? ` · ${d.total_capacity}` : '',
          lock && lock !== 'Unlocked' ? h('span', { class: 'badge', text: lock }) : ''),
        parts.length ? h('div', { class: 'scroll' }, h('table', { class: 'list' },
          h('thead', null, h('tr', null, ...['Share', 'Type', 'Size', 'Used', 'Free'].map((t) => h('th', { text: t })))),
          h('tbody', null, ...parts.map((p) => h('tr', null, ...[p.label, p.type, p.capacity, p.used, p.avai]
            .map((t) => h('td', { text: str(t) }))))))) : h('p', { class: 'muted small', text: 'No share mounted.' }),
        h('div', { class: 'actions' },
          lock === 'Locked' ? h('input', {
            id: `unlock-pass-${id}`, type: 'password', placeholder: 'Drive password',
            autocomplete: 'off', 'aria-label': `Password of ${name}`,
          }) : '',
          lock === 'Locked' ? h('button', { id: `unlock-${id}`, type: 'button', class: 'unlock primary', 'data-disk': name, text: 'Unlock' }) : '',
          h('button', { id: `remove-${id}`, type: 'button', class: 'remove', 'data-disk': name, text: 'Safely remove' })));
    }));
    if (!disks.size) box.append(h('p', { class: 'muted', text: list === '' ? 'The disk list cannot be read right now.' : 'No disk plugged in.' }));
  }

  function renderLog(logs) {
    const list = arr(logs && logs.log_list).slice().sort((a, b) => Number(b.id) - Number(a.id));
    if (!changed('log', list)) return;
    const body = $('backup-log').tBodies[0];
    body.replaceChildren(...list.map((l) => h('tr', { class: l.result === 'failed' ? 'bad' : '' },
      ...[l.id, l.result, l.type, l.file_count, l.des, l.newest_file].map((t) => h('td', { text: str(t) })))));
    if (!list.length) body.append(h('tr', null, h('td', { colSpan: 6, class: 'muted', text: 'No backup recorded.' })));
  }

  const storageOk = (text) => { $('storage-ok').textContent = text; };

  async function removeDisk(name) {
    storageOk('');
    await step(`Safely remove ${name}`, () => revalidate({ safely_remove: { disk: name } }));
    storageOk(`${name} can be unplugged now.`);
    kick();
  }

  async function unlockDisk(name) {
    storageOk('');
    const input = $(`unlock-pass-${idOf(name)}`);
    if (!input || !input.value) throw new Error(`Unlock ${name}: enter the drive's password`);
    const r = await step(`Unlock ${name}`, () => revalidate({ disk_unlock: { disk_name: name, passwd: input.value } }));
    const state = str(r.lock_state);
    if (state !== 'Unlocked') throw new Error(`Unlock ${name}: ${LOCK_TEXT[state] || 'unexpected answer'} (${state || 'no state'})`);
    input.value = '';
    storageOk(`${name} is unlocked.`);
    kick();
  }

  async function backup(action) {
    storageOk('');
    try {
      await revalidate(action === 'start' ? { sd_copy: { action: 'start' } } : { cancelsynctask: {} });
    } catch (e) {
      const why = SYNC_ERRORS[e.message];
      throw new Error(`${action === 'start' ? 'Backup' : 'Cancel'}: ${e.message}${why ? ` (${why})` : ''}`);
    }
    storageOk(action === 'start' ? 'Backup started.' : 'Backup cancelled.');
    kick();
  }

  // ---- System

  async function loadLogin() {
    try {
      const { confs } = await prefGet(['httpd_auth_name']);
      $('login-name').value = str(confs.httpd_auth_name);
      loginLoaded = true;
      $('login-apply').disabled = false;
      err.system('load', '');
    } catch (e) {
      err.system('load', `Reading the login: ${e.message}`);
    }
  }

  async function applyLogin() {
    $('login-ok').textContent = '';
    const name = $('login-name').value;
    const pass = name ? $('login-pass').value : '';
    // The server's configuration file separates name and password with a
    // colon and ends each entry at a newline.
    if (name.includes(':') || control.test(name)) throw new Error('User name: no colon and no control characters');
    if (name && !pass) throw new Error('Password: enter a password');
    if (control.test(pass)) throw new Error('Password: no control characters');
    await step('Saving', () => prefSet({ httpd_auth_name: name, httpd_auth_passwd: pass }));
    await step('Applying', () => revalidate({ httpd: { action: 'restart' } }),
      'the web server restarts: reload the page and log in with the new name and password');
    $('login-pass').value = '';
    $('login-ok').textContent = name ? 'Applied. The browser asks for the new login on the next page load.'
      : 'Applied. The login is off.';
  }

  const ACTIONS = {
    reboot: ['Reboot the device now?', { reboot: {} }, 'Rebooting: the device is back in about a minute.'],
    poweroff: ['Power off the device now?', { poweroff: {} }, 'Powering off.'],
    'factory-default': ['Reset the device to its factory default settings now? All your settings are lost.',
      { factorydefault: {} }, 'Factory default settings are being restored.'],
  };

  async function systemAction(id) {
    const [question, targets, done] = ACTIONS[id];
    $('system-ok').textContent = '';
    if (!window.confirm(question)) return;
    await step($(id).textContent, () => revalidate(targets));
    $('system-ok').textContent = done;
  }

  // ---- Wiring

  const on = (id, event, fn) => $(id).addEventListener(event, fn);
  const submit = (form, button, section, source, fn) => on(form, 'submit', (e) => {
    e.preventDefault();
    act($(button), err[section], source, fn);
  });

  submit('wifi-form', 'wifi-apply', 'wifi', 'apply', applyWifi);
  on('wifi-security', 'change', showSecurity);
  on('wifi-band', 'change', fillChannels);
  submit('join-form', 'join', 'internet', 'join', joinForm);
  on('join-sec', 'change', showJoinSecurity);
  on('join-mode', 'change', () => { $('join-mode').dataset.touched = '1'; });
  on('scan', 'click', () => act($('scan'), err.internet, 'scan', scan));
  on('disconnect', 'click', () => act($('disconnect'), err.internet, 'join', async () => {
    joining = null;
    await step('Disconnect', () => revalidate({ wan: { action: 'stop' } }));
    kick();
  }));
  on('hotspots', 'click', (e) => {
    const b = e.target.closest('.pick');
    if (!b) return;
    try {
      pick(b);
      err.internet('pick', '');
    } catch (x) {
      err.internet('pick', x.message);
    }
  });
  on('profiles', 'click', (e) => {
    const b = e.target.closest('button');
    const p = b && saved[Number(b.dataset.n)];
    if (!p) return;
    if (b.classList.contains('profile-join')) {
      act(b, err.internet, 'join', () => join(p.essid, str(p.encrypt), str(p.pass),
        TRUST[p.workmode] || (MODES[wanType] ? wanType : 'wireless_sta')));
    } else {
      act(b, err.internet, 'forget', async () => {
        await step(`Forget ${p.essid}`, () => revalidate({ ap_profiles: { action: 'forget', essid: [p.essid] } }));
        kick();
      });
    }
  });
  on('disks', 'click', (e) => {
    const b = e.target.closest('button');
    if (!b) return;
    const name = b.dataset.disk;
    if (b.classList.contains('remove')) act(b, err.storage, 'remove', () => removeDisk(name));
    if (b.classList.contains('unlock')) act(b, err.storage, 'unlock', () => unlockDisk(name));
  });
  on('backup-start', 'click', () => act($('backup-start'), err.storage, 'backup', () => backup('start')));
  on('backup-cancel', 'click', () => act($('backup-cancel'), err.storage, 'backup', () => backup('cancel')));
  submit('login-form', 'login-apply', 'system', 'login', applyLogin);
  for (const id of Object.keys(ACTIONS)) on(id, 'click', () => act($(id), err.system, 'action', () => systemAction(id)));
  for (const b of document.querySelectorAll('.toggle')) {
    b.addEventListener('click', () => {
      const input = $(b.dataset.for);
      input.type = input.type === 'password' ? 'text' : 'password';
      b.textContent = input.type === 'password' ? 'Show' : 'Hide';
    });
  }

  showJoinSecurity();
  loadForms();
  poll();
})();
