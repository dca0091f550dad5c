// tideway-host's page. It plays the UI host for the presentation plug-in: the server relays the
// plug-in's notices over one WebSocket, this script reads them with DOMParser and renders them,
// and every event a notice armed goes back as a brguiEvent document. The agent panel sends the
// simulator's control lines and shows the tail of the simulator's log.
//
// Everything that comes from the module or the agent is shown with textContent or set as a
// property, never parsed as markup: a tower may be named "<img src=x onerror=...>".
'use strict';

// The event attributes a control may carry, each with the attribute that lists the controls
// whose values the host returns with the event.
const EVENTS = ['OnPress', 'OnSelect', 'OnDoubleClick', 'OnPressEnter',
                'OnOK', 'OnCancel', 'OnClose', 'OnError'];

// The host's own skin: which caption stands beside which control, and the titles of the
// statistics panels. Controls not named here are laid out one per row in the notice's order.
const CAPTION_OF = {tower: 'tower_lbl', mode_radio_group: 'tower_select_lbl',
                    tower_list_combobox: 'tower_list_lbl'};
const PANEL_TITLES = {stat_outlinelistbox: 'Statistics',
                      overview_stat_outlinelistbox: 'Overview'};

const MAX_HISTORY = 200;
const MAX_AGENT_LINES = 500;
const MAX_CONTROL_LINE = 4096;

const $ = (id) => document.getElementById(id);

function el(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

function childElements(node, name) {
  return Array.from(node.children).filter((c) => !name || c.nodeName === name);
}

// ---------------------------------------------------------------------------------------------
// The connection to tideway-host

let socket = null;
let agentControl = false;
let pluginStopped = false;  // NotifyStopped came on this connection

function connect() {
  socket = new WebSocket(`ws://${location.host}/ws`);
  socket.onopen = () => {
    // The server replays the whole state to a new connection, so start from a blank page.
    resetPage();
    pluginStopped = false;
    showBanner('');
  };
  socket.onmessage = (message) => {
    const data = String(message.data);
    const payload = data.slice(1);
    switch (data[0]) {
      case 'N': handleNotice(payload); break;
      case 'S':
        pluginStopped = true;
        showBanner('The plug-in has stopped (NotifyStopped).');
        setPageDisabled(true);
        break;
      case 'A': addAgentLine(payload, lineClass(payload)); break;
      case 'R': addAgentLine(`\u2190 ${payload}`, payload.startsWith('OK') ? 'reply' : 'reply err'); break;
      case 'I': handleInfo(payload); break;
      default: console.warn('tideway-host sent an unknown message', data.slice(0, 80));
    }
  };
  socket.onclose = () => {
    // A host that stops its plug-in closes the pages right after saying so: the person must
    // still read that the plug-in stopped, not only that the connection went.
    showBanner(pluginStopped
      ? 'The plug-in has stopped (NotifyStopped); tideway-host has closed the page\'s connection.'
      : 'Not connected to tideway-host; trying again\u2026');
    setTimeout(connect, 2000);
  };
}

function send(text) {
  if (!socket || socket.readyState !== WebSocket.OPEN) {
    showBanner('Not connected to tideway-host; nothing was sent.');
    return false;
  }
  socket.send(text);
  return true;
}

function showBanner(text) {
  $('banner').textContent = text;
  $('banner').hidden = !text;
}

function handleInfo(line) {
  const equals = line.indexOf('=');
  if (equals < 0) return;
  const [key, value] = [line.slice(0, equals), line.slice(equals + 1)];
  if (key === 'agent-control') {
    agentControl = value === 'yes';
    $('agent-controls').disabled = !agentControl;
    $('agent-note').textContent = agentControl ? ''
        : 'tideway-host was started without --agent-control: the panel is off.';
  } else if (key === 'agent-log' && value !== 'yes') {
    addAgentLine('(tideway-host was started without --agent-log: no agent log to show)', 'note');
  }
}

// ---------------------------------------------------------------------------------------------
// Controls. A surface (the page, or one pop-up) maps control ids to widgets; a widget knows its
// element name, its DOM, the events armed on it, how to take a notice's attributes and children,
// and its current value for an event document.

const page = {controls: new Map()};
const popups = new Map();  // pop-up id (error pop-ups: id#n) -> {dialog, controls}
let popupSerial = 0;

function makeWidget(node, surface) {
  const type = node.nodeName;
  const id = node.getAttribute('id') || '';
  const w = {type, id, surface, events: {}, root: null, value: () => ''};
  switch (type) {
    case 'label':
      w.root = el('span', 'ctl-label');
      w.set = (n) => { if (n.hasAttribute('value')) w.root.textContent = n.getAttribute('value'); };
      w.value = () => w.root.textContent;
      break;
    case 'button': case 'autosizebutton':
      w.root = el('button', 'ctl-button');
      w.root.type = 'button';
      w.set = (n) => { if (n.hasAttribute('label')) w.root.textContent = n.getAttribute('label'); };
      w.root.addEventListener('click', () => fireEvent(w, 'OnPress'));
      break;
    case 'closebutton':
      w.root = el('button', 'ctl-close', '\u00d7');
      w.root.type = 'button';
      w.root.setAttribute('aria-label', 'Close');
      w.set = () => {};
      w.root.addEventListener('click', () => fireEvent(w, 'OnClose'));
      break;
    case 'textbox': case 'passwordbox': case 'textarea': {
      const input = type === 'textarea' ? el('textarea') : el('input');
      if (type !== 'textarea') input.type = type === 'passwordbox' ? 'password' : 'text';
      input.autocomplete = 'off';
      w.root = input;
      w.set = (n) => {
        if (n.hasAttribute('value')) input.value = n.getAttribute('value');
        const max = parseInt(n.getAttribute('maxlength'), 10);
        if (max > 0) input.maxLength = max;
        if (n.hasAttribute('audible')) input.setAttribute('aria-label', n.getAttribute('audible'));
        if (n.getAttribute('focus') === 'true') w.wantsFocus = true;
      };
      w.value = () => input.value;
      input.addEventListener('keydown', (e) => {
        if (e.key === 'Enter' && type !== 'textarea') {
          e.preventDefault();
          fireEvent(w, 'OnPressEnter');
        }
      });
      break;
    }
    case 'checkbox': {
      const box = el('input');
      box.type = 'checkbox';
      const caption = el('span');
      w.root = el('label', 'ctl-check');
      w.root.append(box, caption);
      w.set = (n) => {
        if (n.hasAttribute('checked')) box.checked = n.getAttribute('checked') === 'true';
        if (n.hasAttribute('label')) caption.textContent = n.getAttribute('label');
      };
      w.value = () => (box.checked ? 'true' : 'false');
      box.addEventListener('change', () => fireEvent(w, 'OnSelect'));
      break;
    }
    case 'combobox': {
      const select = el('select');
      w.root = select;
      w.set = (n) => {
        const items = childElements(n, 'comboitem');
        if (items.length > 0) {
          // Each notice carries the whole list: it replaces the one shown.
          select.replaceChildren();
          select.selectedIndex = -1;
          items.forEach((item, index) => {
            // The value keeps the label's bytes; an option's text collapses runs of blanks.
            const label = item.getAttribute('label') || '';
            select.append(new Option(label, label));
            if (item.getAttribute('selected') === 'true') select.selectedIndex = index;
          });
          if (!items.some((i) => i.getAttribute('selected') === 'true')) select.selectedIndex = -1;
        }
        if (n.getAttribute('value')) {
          const index = Array.from(select.options).findIndex((o) => o.value === n.getAttribute('value'));
          if (index >= 0) select.selectedIndex = index;
        }
      };
      w.value = () => (select.selectedIndex >= 0 ? select.options[select.selectedIndex].value : '');
      select.addEventListener('change', () => fireEvent(w, 'OnSelect'));
      break;
    }
    case 'radiogroup': {
      w.root = el('div', 'ctl-radios');
      w.root.setAttribute('role', 'radiogroup');
      const name = `radio-${Math.random().toString(36).slice(2)}`;
      w.set = (n) => {
        const radios = childElements(n, 'radio');
        if (radios.length === 0) return;  // attributes only: the radios stay as they are
        w.root.replaceChildren();
        for (const radio of radios) {
          const input = el('input');
          input.type = 'radio';
          input.name = name;
          input.checked = radio.getAttribute('selected') === 'true';
          input.disabled = w.disabled;
          input.addEventListener('change', () => fireEvent(w, 'OnSelect'));
          const caption = el('label', 'ctl-radio');
          caption.append(input, document.createTextNode(radio.getAttribute('label') || ''));
          w.root.append(caption);
        }
      };
      // The host returns the selected radio's label as the group's value.
      w.value = () => {
        const checked = w.root.querySelector('input:checked');
        return checked ? checked.parentElement.textContent : '';
      };
      break;
    }
    case 'outlinelistbox':
      makeOutlineBox(w);
      break;
    default:
      // An element this page does not know: show its text so that nothing goes unseen.
      w.root = el('span', 'ctl-unknown');
      w.root.dataset.element = type;
      w.set = (n) => {
        const text = n.getAttribute('value') || n.getAttribute('label');
        if (text !== null) w.root.textContent = text;
      };
  }
  w.root.dataset.ctl = id;
  if (id) surface.controls.set(id, w);
  return w;
}

// Applies a notice's element to its widget: the common attributes, then the widget's own.
function applyNode(w, node) {
  if (node.hasAttribute('disabled')) setDisabled(w, node.getAttribute('disabled') === 'true');
  if (node.hasAttribute('hidden')) w.root.hidden = node.getAttribute('hidden') === 'true';
  if (node.hasAttribute('tooltip')) w.root.title = node.getAttribute('tooltip');
  for (const name of EVENTS) {
    if (node.hasAttribute(name)) {
      const list = node.getAttribute(`${name}ID`);
      w.events[name] = {id: node.getAttribute(name), controls: list ? list.split(',') : []};
    }
  }
  w.set(node);
}

function setDisabled(w, disabled) {
  w.disabled = disabled;
  w.root.classList.toggle('disabled', disabled);
  if ('disabled' in w.root) w.root.disabled = disabled;
  for (const input of w.root.querySelectorAll('input, select, button, textarea')) input.disabled = disabled;
}

// Builds and sends the event a control armed, with the current value of each control that the
// control-list attribute names. A control that armed nothing sends nothing.
function fireEvent(w, name) {
  const armed = w.events[name];
  if (!armed || !armed.id) return;
  const doc = document.implementation.createDocument(null, 'brguiEvent', null);
  const root = doc.documentElement;
  root.setAttribute('id', armed.id);
  for (const id of armed.controls) {
    const other = w.surface.controls.get(id) || page.controls.get(id);
    if (!other) continue;
    const child = doc.createElement(other.type);
    child.setAttribute('id', id);
    child.setAttribute('value', other.value());
    root.appendChild(child);
  }
  const xml = new XMLSerializer().serializeToString(doc);
  if (send(`E${xml}`)) {
    // Shown to the person at the page; a password stays dotted there.
    const shown = root.cloneNode(true);
    for (const c of shown.children) if (c.nodeName === 'passwordbox') c.setAttribute('value', '\u2022\u2022\u2022');
    $('last-event').textContent = new XMLSerializer().serializeToString(shown);
  }
}

// ---------------------------------------------------------------------------------------------
// Outline list boxes: groups with a caption, rows of columns. With updaterows="true" a notice's
// groups and rows are merged into the box by id; otherwise they replace its content.

function makeOutlineBox(w) {
  const table = el('table', 'outline');
  w.root = table;
  w.groups = new Map();  // group id -> {body, caption, rows: Map(row id -> tr)}
  w.columns = 2;
  const group = (id) => {
    let g = w.groups.get(id);
    if (!g) {
      const body = el('tbody');
      const head = el('tr', 'group');
      const caption = el('th');
      caption.colSpan = w.columns;
      head.append(caption);
      body.append(head);
      table.append(body);
      g = {body, caption, rows: new Map()};
      w.groups.set(id, g);
    }
    return g;
  };
  const fillRow = (g, rowNode) => {
    const id = rowNode.getAttribute('id') || '';
    let tr = g.rows.get(id);
    if (!tr) {
      tr = el('tr');
      tr.dataset.row = id;
      g.body.append(tr);
      if (id) g.rows.set(id, tr);
    }
    const labels = childElements(rowNode, 'listrowcolumn').map((c) => c.getAttribute('label') || '');
    while (labels.length < w.columns) labels.push('');
    tr.replaceChildren(...labels.map((text) => el('td', '', text)));
  };
  w.set = (n) => {
    const columns = parseInt(n.getAttribute('num_columns'), 10);
    if (columns > 0 && columns <= 16) w.columns = columns;
    if (n.getAttribute('updaterows') !== 'true') {
      table.replaceChildren();
      w.groups.clear();
    }
    for (const child of n.children) {
      if (child.nodeName === 'listgroup') {
        const g = group(child.getAttribute('id') || '');
        g.body.dataset.group = child.getAttribute('id') || '';
        for (const part of child.children) {
          if (part.nodeName === 'listrowcolumn') g.caption.textContent = part.getAttribute('label') || '';
          else if (part.nodeName === 'listrow') fillRow(g, part);
        }
      } else if (child.nodeName === 'listrow') {
        fillRow(group(''), child);  // a row outside any group
      }
    }
  };
}

// ---------------------------------------------------------------------------------------------
// Notices

function handleNotice(xml) {
  const doc = new DOMParser().parseFromString(xml, 'application/xml');
  const root = doc.documentElement;
  if (doc.getElementsByTagName('parsererror').length > 0 || root.nodeName !== 'brguiNotice') {
    console.warn('not a brguiNotice document', xml.slice(0, 200));
    return;
  }
  const type = root.getAttribute('type');
  if (type === 'setup') buildSetup(root);
  else if (type === 'update') applyUpdate(root);
  else if (type === 'popup') handlePopup(root);
  else console.info(`notice of type "${type}" has nothing to show here`);
  if (root.hasAttribute('state')) setTrayState(root.getAttribute('state'));
  for (const log of childElements(root, 'log')) {
    if (log.hasAttribute('messagehistory')) {
      addHistory(root.getAttribute('timestamp') || '', log.getAttribute('messagehistory'));
    }
  }
}

// The setup notice defines the page: the tile comes before the "preferences" marker, the tower
// page after it, and each outline list box is a panel of its own.
function buildSetup(root) {
  clearSurface(page);
  setPageDisabled(false);
  let section = $('tile');
  const rows = new Map();  // control id -> the row that holds its caption
  for (const node of root.children) {
    if (node.nodeName === 'preferences') { section = $('page'); continue; }
    if (node.nodeName === 'log') continue;
    const w = makeWidget(node, page);
    if (node.nodeName === 'outlinelistbox') {
      const panel = el('div', 'card panel');
      panel.append(el('h2', '', PANEL_TITLES[w.id] || w.id), w.root);
      $('stats').append(panel);
    } else if (node.nodeName === 'traystate') {
      w.root.hidden = true;
      $('tray').append(w.root);
    } else if (section === $('tile')) {
      section.append(w.root);
    } else {
      placeOnPage(w, rows);
    }
    applyNode(w, node);
  }
}

// A caption named in CAPTION_OF opens a row that the control it belongs to joins later;
// everything else is a row of its own.
function placeOnPage(w, rows) {
  const owner = Object.keys(CAPTION_OF).find((k) => CAPTION_OF[k] === w.id);
  if (owner) {
    const row = el('div', 'row');
    w.root.classList.add('caption');
    row.append(w.root);
    rows.set(owner, row);
    $('page').append(row);
    return;
  }
  const row = rows.get(w.id);
  if (row) {
    row.append(w.root);
    return;
  }
  const own = el('div', 'row single');
  own.append(w.root);
  $('page').append(own);
}

function applyUpdate(root) {
  for (const node of root.children) {
    if (node.nodeName === 'log' || node.nodeName === 'preferences') continue;
    const id = node.getAttribute('id');
    if (node.nodeName === 'traystate') {
      if (node.hasAttribute('value')) setTrayText(node.getAttribute('value'));
      continue;
    }
    let w = id ? page.controls.get(id) : null;
    if (!w) {
      // A control the setup did not define: show it apart, so that nothing is lost.
      w = makeWidget(node, page);
      $('extra').hidden = false;
      $('extra').append(w.root);
    }
    applyNode(w, node);
  }
}

function setPageDisabled(disabled) {
  document.querySelector('.host').classList.toggle('stopped', disabled);
}

// ---------------------------------------------------------------------------------------------
// Pop-ups: modal dialogs. The plug-in closes its own with dispose="true"; an error pop-up,
// which nothing disposes, the person closes.

function handlePopup(root) {
  const node = childElements(root, 'popup')[0];
  if (!node) return;
  const id = node.getAttribute('id') || '';
  // Error pop-ups stack, since each report is one the person reads and closes; any other pop-up
  // replaces the one of its id, and a dispose closes it.
  const key = node.getAttribute('type') === 'error' ? `${id}#${++popupSerial}` : id;
  if (key === id) closePopup(id);
  if (node.getAttribute('dispose') === 'true') return;

  const dialog = el('dialog', `popup popup-${node.getAttribute('type') === 'error' ? 'error' : 'custom'}`);
  dialog.dataset.popup = id;
  const surface = {controls: new Map()};
  const header = el('div', 'popup-head');
  const title = el('h2');
  header.append(title);
  dialog.append(header);
  let closeButton = null;
  for (const child of node.children) {
    switch (child.nodeName) {
      case 'title': title.textContent = child.getAttribute('value') || ''; break;
      case 'text': dialog.append(el('p', 'popup-text', child.getAttribute('value') || '')); break;
      case 'layout':
        for (const row of childElements(child, 'row')) {
          const line = el('div', 'popup-row');
          for (const ctl of row.children) {
            const w = makeWidget(ctl, surface);
            line.append(w.root);
            applyNode(w, ctl);
          }
          dialog.append(line);
        }
        break;
      default: {
        const w = makeWidget(child, surface);
        if (child.nodeName === 'closebutton') { header.append(w.root); closeButton = w; } else dialog.append(w.root);
        applyNode(w, child);
      }
    }
  }
  if (node.getAttribute('type') === 'error' && !closeButton) {
    // The host's own button: nothing is armed, so closing sends nothing.
    const ok = el('button', 'ctl-button', 'OK');
    ok.type = 'button';
    ok.addEventListener('click', () => closePopup(key));
    const line = el('div', 'popup-row end');
    line.append(ok);
    dialog.append(line);
  }
  // Escape closes the dialog only as the close button would: through the plug-in.
  dialog.addEventListener('cancel', (e) => {
    e.preventDefault();
    if (closeButton && closeButton.events.OnClose) fireEvent(closeButton, 'OnClose');
    else if (!closeButton) closePopup(key);
  });
  document.body.append(dialog);
  popups.set(key, {dialog, controls: surface.controls});
  dialog.showModal();
  const focus = Array.from(surface.controls.values()).find((w) => w.wantsFocus);
  if (focus) focus.root.focus();
}

function closePopup(id) {
  const open = popups.get(id);
  if (!open) return;
  popups.delete(id);
  open.dialog.close();
  open.dialog.remove();
}

// ---------------------------------------------------------------------------------------------
// Tray, message history and the page's reset

function setTrayState(state) {
  $('tray').dataset.state = state;
  $('tray-state').textContent = state;
  updateTrayTitle();
}

function setTrayText(text) {
  $('tray-text').textContent = text;
  updateTrayTitle();
}

function updateTrayTitle() {
  const text = $('tray-text').textContent;
  $('tray').title = `Tray: ${$('tray-state').textContent}${text ? ` \u2013 ${text}` : ''}`;
}

function addHistory(time, line) {
  const item = el('li');
  item.append(el('time', '', time), el('span', 'line', line));
  $('history').prepend(item);  // newest first
  while ($('history').children.length > MAX_HISTORY) $('history').lastElementChild.remove();
}

function clearSurface(surface) {
  surface.controls.clear();
  for (const id of ['tile', 'page', 'stats', 'extra']) $(id).replaceChildren();
  $('extra').hidden = true;
}

function resetPage() {
  clearSurface(page);
  for (const id of Array.from(popups.keys())) closePopup(id);
  $('history').replaceChildren();
  $('agent-log').replaceChildren();
  $('tray').dataset.state = '';
  $('tray-state').textContent = '\u2013';
  setTrayText('');
  setPageDisabled(false);
}

// ---------------------------------------------------------------------------------------------
// The agent panel and its log tail

function lineClass(line) {
  const word = line.split(' ', 1)[0];
  return ['RECV', 'SEND', 'CONNECT', 'DISCONNECT', 'BAD', 'LISTENING'].includes(word)
      ? word.toLowerCase() : '';
}

function addAgentLine(text, className) {
  const list = $('agent-log');
  const atEnd = list.scrollTop + list.clientHeight >= list.scrollHeight - 4;
  list.append(el('li', className, text));
  while (list.children.length > MAX_AGENT_LINES) list.firstElementChild.remove();
  if (atEnd) list.scrollTop = list.scrollHeight;
}

function sendControl(line) {
  line = line.replace(/[\r\n]+/g, ' ').trim();
  if (!line) return;
  if (new TextEncoder().encode(line).length > MAX_CONTROL_LINE) {
    addAgentLine('(control line too long: at most 4 KiB)', 'reply err');
    return;
  }
  if (send(`C${line}`)) addAgentLine(`\u2192 ${line}`, 'command');
}

function setUpAgentPanel() {
  for (const button of document.querySelectorAll('#agent-controls button[data-line]')) {
    button.addEventListener('click', () => sendControl(button.dataset.line));
  }
  // A form's template names its fields in braces; empty trailing fields fall away.
  for (const form of document.querySelectorAll('#agent-controls form[data-template]')) {
    form.addEventListener('submit', (e) => {
      e.preventDefault();
      const line = form.dataset.template.replace(/\{(\w+)\}/g,
          (_, name) => form.elements[name].value.trim());
      sendControl(line.replace(/\s+$/, ''));
    });
  }
  $('agent-controls').disabled = true;  // until the server says there is a control socket
}

setUpAgentPanel();
connect();
