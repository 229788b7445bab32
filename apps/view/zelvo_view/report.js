'use strict';
// The page of a report, and of a running bus (live.js). Names and payloads are whatever the log
// holds: they become text nodes, never markup. Of the messages only those in sight are elements.
const page = (() => {
  const data = JSON.parse(document.getElementById('data').textContent);
  const { kinds, names, subjects, payloads, notes, columns } = data;
  const ROW = 22;
  const MOST = 1e6; // pixels of the rows' height; a browser ends an element at 33 million
  const el = (id) => document.getElementById(id);
  const count = () => columns.time.length;
  const name = (index) => (index < 0 ? '' : names[index]);

  const set = (element, attributes) => {
    for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
    return element;
  };
  const make = (tag, className = '', textContent = '') =>
    Object.assign(document.createElement(tag), { className, textContent });
  const makeSvg = (tag, attributes, textContent = '') =>
    Object.assign(set(document.createElementNS('http://www.w3.org/2000/svg', tag), attributes), { textContent });
  const button = (text, className, onclick) => Object.assign(make('button', className, text), { onclick });
  // The date is shown where there is more than one day.
  const clock = (ms, isLong) => new Date(ms).toISOString().slice(isLong ? 0 : 11, 23);
  let start = 0, end = 0; // the first and the last time, which may stand anywhere: clocks are put back
  function measure() {
    start = columns.time.reduce((a, b) => Math.min(a, b), count() ? Infinity : 0);
    end = columns.time.reduce((a, b) => Math.max(a, b), start);
    for (const id of ['from', 'to']) if (!el(id).value) el(id).type = typeOfTimes();
  }
  const hasDays = () =>
    Math.floor((data.begin + start) / 86400000) !== Math.floor((data.begin + end) / 86400000);
  const typeOfTimes = () => (hasDays() ? 'datetime-local' : 'time');
  const oneLine = (text) => (text.length > 300 ? text.slice(0, 300) + '\u2026' : text)
    .replace(/[\0-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u206f\ufeff]/g, (c) => {
      const known = { '\n': '\\n', '\t': '\\t', '\r': '\\r' }[c];
      return known || '\\x' + c.charCodeAt(0).toString(16).padStart(2, '0');
    });

  // What is known of a message.
  const at = (i) => ({
    row: i, ms: data.begin + columns.time[i], kind: kinds[columns.kind[i]].name,
    isFault: kinds[columns.kind[i]].fault, src: name(columns.src[i]), dst: name(columns.dst[i]),
    subject: columns.subject[i] < 0 ? '' : subjects[columns.subject[i]],
    payload: columns.payload[i] < 0 ? null : payloads[columns.payload[i]], size: columns.size[i],
    note: columns.note[i] < 0 ? '' : notes[columns.note[i]], took: columns.took[i],
  });

  // ---- overview ----

  // A column whose title begins with ">" is one of numbers.
  function table({ header, rows }) {
    const made = make('table');
    const className = header.map((title) => (title.startsWith('>') ? 'number' : ''));
    made.createTHead().insertRow().append(...header.map((title, i) =>
      set(make('th', className[i], title.replace(/^>/, '')), { scope: 'col' })));
    const body = made.createTBody();
    for (const cells of rows) {
      body.insertRow().append(...cells.map((cell, i) => make('td', className[i], cell)));
    }
    return made;
  }

  function showOverview() {
    el('span').textContent = data.head.join(' \u00b7 ');
    const wrong = el('overview').appendChild(make('div', 'wrong'));
    wrong.append(make('h2', '', data.wrong.length ? 'What went wrong' : 'Nothing went wrong'));
    for (const group of data.wrong) {
      wrong.append(make('strong', '', `${group.title}: ${group.number}`));
      const list = wrong.appendChild(make('ul'));
      for (const [what, times, when, row] of group.rows) {
        list.appendChild(make('li')).append(button(oneLine(`${times} \u00d7 ${what} (${when})`), 'link', () => {
          show('messages');
          clearFilter(true);
          reveal(row);
          el('list').focus();
        }));
      }
    }
    for (const part of data.tables) {
      if (part.rows.length) el('overview').append(make('h2', '', part.title), table(part));
    }
    el('overview').append(...data.remarks.map((remark) => make('p', '', remark)));
    el('zoom').hidden = !el('drawing').firstElementChild;
    if (el('zoom').hidden) {
      el('drawing').append(make('p', '', 'As a table: Graphviz is not installed, or this is too much for it.'), table(data.graph));
    }
  }

  let size = 1;

  function zoom(by) {
    size = by ? Math.min(Math.max(size * by, 0.2), 20) : 1;
    const { style } = el('drawing').querySelector('svg');
    [style.width, style.maxWidth] = size === 1 ? ['', ''] : [`${size * 100}%`, 'none'];
  }

  // ---- which messages ----

  let shown = new Uint32Array(0); // rows of the messages that pass the filter
  let stretch = null; // [from, to] in milliseconds, or all
  let mode = 'messages';
  let chosen = -1;
  let dropped = 0; // rows that have gone
  let lives = []; // in the chart: indexes of the nodes, in order
  let positions = new Map(); // and where each stands

  function fillSelects() {
    for (const [select, texts] of [[el('node'), names], [el('subject'), subjects]]) {
      if (data.live && select === document.activeElement) continue; // it may be open
      const { value } = select;
      select.replaceChildren(new Option('all', ''), ...texts.map((text, i) => [text, i])
        .sort((a, b) => (a[0] < b[0] ? -1 : 1))
        .map(([text, i]) => new Option(oneLine(text).slice(0, 80), i)));
      select.value = value;
    }
  }

  // Tells of each text whether it holds the wanted one, in any case.
  function searchable(texts) {
    const lower = texts.map((text) => text.toLowerCase());
    return (wanted) => lower.map((text) => text.includes(wanted));
  }
  let searches = null; // of names, subjects, payloads and notes

  function filter() {
    const number = (id) => (el(id).value === '' ? null : Number(el(id).value));
    const node = number('node'), subject = number('subject');
    const wanted = el('text').value.toLowerCase();
    if (wanted) searches = searches || [names, subjects, payloads, notes].map(searchable);
    const [inName, inSubject, inPayload, inNote] = wanted ? searches.map((s) => s(wanted)) : [];
    const faults = el('onlyfaults').checked;
    const { src, dst, kind, subject: topic, payload, note, time: when } = columns;
    const total = count(), found = new Uint32Array(total);
    let passed = 0;
    for (let i = 0; i < total; ++i) {
      if (stretch && (when[i] < stretch[0] || when[i] > stretch[1])) continue;
      if (node !== null && src[i] !== node && dst[i] !== node) continue;
      if (subject !== null && topic[i] !== subject) continue;
      if (faults && !kinds[kind[i]].fault) continue;
      if (wanted && !(inName[src[i]] || inName[dst[i]] || inSubject[topic[i]] ||
          inPayload[payload[i]] || inNote[note[i]])) continue;
      found[passed++] = i;
    }
    shown = found.subarray(0, passed);
    el('count').textContent = `${passed.toLocaleString('en')} of ${total.toLocaleString('en')} messages`;
    if (mode === 'chart') findLives();
  }

  function applyFilter() {
    filter();
    goTo(data.live ? Infinity : 0);
  }

  function setStretch(wanted) {
    stretch = wanted;
    applyFilter();
    drawDensity();
  }

  function clearFilter(faults) {
    for (const id of ['node', 'subject', 'text', 'from', 'to']) el(id).value = '';
    el('onlyfaults').checked = faults === true;
    setStretch(null);
  }

  function findLives() {
    const seen = new Uint8Array(names.length);
    shown.forEach((row) => endsOf(row).forEach((index) => { seen[index] = 1; }));
    lives = [...names.keys()].filter((index) => seen[index]);
    positions = new Map(lives.map((index, position) => [index, position]));
  }

  // Where a message begins and ends in the chart; a publication goes to the bus.
  function endsOf(i) {
    const src = columns.src[i], dst = columns.dst[i];
    const to = dst >= 0 ? dst : data.bus;
    return [src >= 0 ? src : to, to];
  }

  // The place of a row among those shown, or where it would be.
  function nearPlaceOf(row) {
    let low = 0, high = shown.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (shown[middle] < row) low = middle + 1; else high = middle;
    }
    return low;
  }
  const placeOf = (row) => (shown[nearPlaceOf(row)] === row ? nearPlaceOf(row) : -1);

  // There are other messages: so many of the first have gone, and others come. Who looks at the last
  // one looks at the last one again, and everybody else at what he has looked at.
  function changed(gone, hasNames) {
    dropped += gone;
    const isAtEnd = top >= limit() - ROW;
    const anchor = (shown[Math.floor(top / ROW)] || 0) - gone;
    chosen = Math.max(chosen - gone, -1);
    searches = null;
    measure();
    filter();
    if (hasNames) fillSelects();
    if (el('traffic').hidden) return;
    drawDensity();
    goTo(isAtEnd ? limit() : nearPlaceOf(Math.max(anchor, 0)) * ROW + top % ROW);
  }

  // ---- what is in sight ----

  // Where the rows are higher than an element can be, the bar stands for a share of them: it jumps
  // to a place, and from there small steps are as long as they look.
  let top = 0; // pixels of the rows that are above
  let bar = 0; // the list's own scroll position
  const room = () => Math.max(el('list').clientHeight - (mode === 'chart' ? 26 : 0), ROW);
  const limit = () => Math.max(0, shown.length * ROW - room());
  const range = () => Math.max(0, Math.min(shown.length * ROW, MOST) - room());

  function goTo(wanted) {
    top = Math.min(Math.max(wanted, 0), limit());
    el('lifelines').hidden = mode !== 'chart';
    el('rows').style.height = `${Math.min(shown.length * ROW, MOST)}px`;
    el('rows').style.minWidth = `${mode === 'chart' ? x(lives.length) : 780}px`;
    el('list').scrollTop = limit() ? top / limit() * range() : 0;
    bar = el('list').scrollTop;
    draw();
  }

  function scroll() {
    const moved = el('list').scrollTop - bar;
    bar += moved;
    if (limit() <= range()) top = bar;
    else if (Math.abs(moved) < 2 * room()) top = Math.min(Math.max(top + moved, 0), limit());
    else top = bar / range() * limit();
    const isAtEnd = bar <= 0 || bar >= range() - 1;
    if (limit() > range() && isAtEnd && top > 0 && top < limit()) goTo(top);
    else draw();
  }

  function draw() {
    const list = el('list');
    const first = Math.max(0, Math.floor(top / ROW) - 10);
    const last = Math.min(shown.length, first + Math.ceil(list.clientHeight / ROW) + 20);
    el('rows').replaceChildren(...(mode === 'chart' ? [drawChart(first, last)] : drawRows(first, last)));
    set(list, { 'aria-activedescendant': el(`message${chosen}`) ? `message${chosen}` : '' });
  }

  const classOf = (m) => {
    const colour = m.isFault ? 'fault' : m.kind === 'answer' || m.kind === 'call' ? 'call' : 'publish';
    return colour + (m.row === chosen ? ' chosen' : '');
  };
  const option = (m, place) => ({
    id: `message${m.row}`, role: 'option', 'aria-selected': m.row === chosen,
    'aria-posinset': place + 1, 'aria-setsize': shown.length, 'data-message': m.row,
  });

  function drawRows(first, last) {
    const made = [], isLong = hasDays();
    for (let r = first; r < last; ++r) {
      const m = at(shown[r]);
      const row = set(make('div', `row ${classOf(m)}`), option(m, r));
      row.style.top = `${bar + r * ROW - top}px`;
      const what = m.isFault ? `${m.kind.toUpperCase()} ${m.note} ` : '';
      const arrow = m.isFault ? '\u2717' : { answer: '\u21e0', call: '\u21d2' }[m.kind] || '\u2192';
      const goal = columns.dst[m.row] < 0 && m.kind !== 'unstick' ? '*' : m.dst;
      row.append(make('span', 'time', clock(m.ms, isLong)), make('span', 'from', oneLine(m.src)),
        make('span', 'arrow', arrow), make('span', 'to', oneLine(goal)),
        make('span', 'subject', oneLine(m.subject)),
        make('span', 'payload', oneLine(what + (m.payload || ''))));
      made.push(row);
    }
    return made;
  }

  const x = (position) => 160 + position * 170;

  function drawChart(first, last) {
    const { scrollLeft, clientWidth } = el('list');
    const height = (last - first) * ROW;
    const begin = Math.max(0, Math.floor((scrollLeft - 160) / 170));
    const inSight = lives.slice(begin, begin + Math.ceil(clientWidth / 170) + 2);
    const svg = makeSvg('svg', { width: clientWidth, height, role: 'presentation',
      viewBox: `${scrollLeft} 0 ${clientWidth} ${height}` });
    svg.style.left = `${scrollLeft}px`;
    svg.style.top = `${bar + first * ROW - top}px`;
    el('lifelines').replaceChildren(...inSight.map((index, i) => {
      const made = make('span', '', oneLine(names[index]));
      const left = x(begin + i);
      made.title = names[index];
      made.style.left = `${left}px`;
      svg.append(makeSvg('line', { class: 'life', x1: left, x2: left, y1: 0, y2: height }));
      return made;
    }));
    for (let r = first; r < last; ++r) svg.append(drawArrow(r, (r - first) * ROW, scrollLeft));
    return svg;
  }

  function drawArrow(r, y, left) {
    const m = at(shown[r]);
    const [src, dst] = endsOf(m.row).map((index) => x(positions.get(index)));
    const group = makeSvg('g', { class: classOf(m), ...option(m, r) });
    const line = y + ROW - 5;
    const head = src <= dst ? -6 : 6;
    const dashes = m.kind === 'answer' || m.kind === 'deliver' ? '5 3' : 'none';
    const path = src === dst
      ? `M${src} ${line - 6}h22v6h-22m6 -4l-6 4l6 4`
      : `M${src} ${line}H${dst}m${head} -4l${-head} 4l${head} 4`;
    const text = oneLine(`${m.isFault ? m.kind.toUpperCase() + ' ' : ''}${m.subject || m.note} ${m.payload || ''}`);
    const length = Math.max(Math.abs(dst - src), 150) / 6.2;
    group.append(makeSvg('rect', { x: 0, y, width: Math.max(x(lives.length), left + 4000), height: ROW }),
      makeSvg('text', { class: 'time', x: 6, y: y + 14 }, clock(m.ms)),
      makeSvg('path', { d: path, 'stroke-dasharray': dashes }),
      makeSvg('text', { x: Math.max(Math.min(src, dst), Math.min(left, Math.max(src, dst))) + 6, y: y + 13 },
        text.length > length ? text.slice(0, length) + '\u2026' : text));
    return group;
  }

  // ---- one message ----

  let opener = null; // what has the focus again when the detail is closed

  function detail(m, title, related) {
    const rows = [['From', m.src || '\u2014'],
      ['To', m.dst || (m.kind === 'publish' || m.kind === 'sticky' ? 'every subscriber' : '\u2014')],
      ['Topic or address', m.subject || '\u2014'], ['Time', clock(m.ms, hasDays())],
      ['Size', m.size < 0 ? 'not in the log' : `${m.size} bytes`]];
    if (m.took >= 0) rows.push(['Took', m.took ? `${m.took} ms` : 'less than 1 ms']);
    if (m.note) rows.push(['Note', m.note]);
    const panel = el('detail');
    if (panel.hidden) opener = document.activeElement;
    Object.assign(panel, { hidden: false, scrollTop: 0 });
    panel.querySelector('h2').textContent = m.kind;
    panel.querySelector('h3').textContent = related.length ? title : '';
    panel.querySelector('dl').replaceChildren(
      ...rows.flatMap(([key, value]) => [make('dt', '', key), make('dd', '', value)]));
    el('payload').hidden = m.payload === null;
    el('payload').textContent = m.payload;
    el('related').replaceChildren(...related.map(([other, go]) => button(
      `${clock(other.ms)} ${other.kind}: ${other.dst || other.src} ${oneLine(other.subject)}`,
      `link${other.isFault ? ' fault' : ''}`, go)));
  }

  function close() {
    el('detail').hidden = true;
    chosen = -1;
    draw();
    if (opener && opener.isConnected) opener.focus();
  }

  function choose(i) {
    chosen = i;
    const origin = columns.ref[i];
    const related = origin >= 0 ? [origin] : [];
    for (let j = i + 1; j < count() && related.length < 50; ++j) {
      if (columns.ref[j] === i) related.push(j);
    }
    const was = dropped;
    detail(at(i), 'What belongs to it', related.map((j) => [at(j), () => reveal(j + was - dropped)]));
    draw();
  }

  function reveal(row) {
    if (row < 0) return;
    if (placeOf(row) < 0) clearFilter();
    choose(row); // before the place is found: the detail takes room
    goTo(placeOf(row) * ROW - room() / 2);
  }

  // ---- the stretch of time ----

  const span = () => Math.max(1, end - start);

  function drawDensity(drag) {
    const canvas = el('density');
    const width = canvas.width = canvas.clientWidth || 1;
    const height = canvas.height;
    const found = new Float64Array(width), wrong = new Uint8Array(width);
    const scale = (width - 1) / span();
    for (let i = 0; i < count(); ++i) {
      const place = Math.min(width - 1, Math.max(0, Math.floor((columns.time[i] - start) * scale)));
      ++found[place];
      if (kinds[columns.kind[i]].fault) wrong[place] = 1;
    }
    const most = found.reduce((a, b) => Math.max(a, b), 1);
    const style = getComputedStyle(document.documentElement);
    const colours = [style.getPropertyValue('--call'), style.getPropertyValue('--fault')];
    const context = canvas.getContext('2d');
    for (let place = 0; place < width; ++place) {
      if (!found[place]) continue;
      context.fillStyle = colours[wrong[place]];
      const tall = Math.max(2, Math.log1p(found[place]) / Math.log1p(most) * height);
      context.fillRect(place, height - tall, 1, tall);
    }
    const marked = drag || (stretch && stretch.map((ms) => (Math.min(Math.max(ms, start), end) - start) * scale));
    if (marked) {
      context.fillStyle = 'rgba(240, 180, 0, 0.3)';
      context.fillRect(Math.min(...marked), 0, Math.max(2, Math.abs(marked[1] - marked[0])), height);
    }
  }

  function followDrag() {
    let from = null;
    const canvas = el('density');
    canvas.addEventListener('pointerdown', (event) => {
      from = event.offsetX;
      canvas.setPointerCapture(event.pointerId);
    });
    canvas.onpointermove = ({ offsetX }) => { if (from !== null) drawDensity([from, offsetX]); };
    canvas.addEventListener('pointerup', (event) => {
      const ends = [from, event.offsetX].sort((a, b) => a - b);
      from = null;
      const ms = (offset) => start + offset / Math.max(1, canvas.clientWidth - 1) * span();
      setStretch(ends[1] - ends[0] < 3 ? null : [ms(ends[0]), ms(ends[1])]);
      // The two fields hold it as times of day, with the date where there are several.
      ['from', 'to'].forEach((id, i) => Object.assign(el(id), { type: typeOfTimes(),
        value: stretch ? clock(data.begin + Math.round(stretch[i]), hasDays()) : '' }));
    });
  }

  function readStretch() {
    const day = clock(data.begin + start, true).slice(0, 11);
    const offset = (text, otherwise) => (text
      ? Date.parse(`${text.includes('T') ? '' : day}${text}Z`) - data.begin : otherwise);
    const ends = [offset(el('from').value, -Infinity), offset(el('to').value, Infinity)];
    setStretch(ends[0] === -Infinity && ends[1] === Infinity ? null : ends);
  }

  // ---- the keyboard ----

  function step(event) {
    const screen = Math.max(1, Math.floor(room() / ROW) - 1);
    const by = { ArrowDown: 1, ArrowUp: -1, PageDown: screen, PageUp: -screen,
      Home: -shown.length, End: shown.length }[event.key];
    if (!by || !shown.length || event.altKey || event.ctrlKey || event.metaKey) return;
    event.preventDefault();
    const place = Math.min(Math.max((chosen < 0 ? -1 : placeOf(chosen)) + by, 0), shown.length - 1);
    choose(shown[place]);
    if (place * ROW < top) goTo(place * ROW);
    else if ((place + 1) * ROW > top + room()) goTo((place + 1) * ROW - room());
  }

  function stepTabs(event) {
    const tabs = [...document.querySelectorAll('[role=tab]')];
    const by = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
    const end = { Home: 0, End: tabs.length - 1 }[event.key];
    const now = tabs.indexOf(document.activeElement);
    if (now < 0 || (!by && end === undefined)) return;
    event.preventDefault();
    const next = tabs[by ? (now + by + tabs.length) % tabs.length : end];
    show(next.dataset.view);
    next.focus();
  }

  // ---- the page ----

  const sectionOf = (view) => el({ messages: 'traffic', chart: 'traffic' }[view] || view);
  const shows = []; // called with each view that is shown

  function show(wanted) {
    const tabs = [...document.querySelectorAll('[role=tab]')];
    const view = tabs.some((tab) => tab.dataset.view === wanted) ? wanted : tabs[0].dataset.view;
    for (const section of document.querySelectorAll('section')) section.hidden = section !== sectionOf(view);
    for (const tab of tabs) {
      const isShown = tab.dataset.view === view;
      set(tab, { 'aria-selected': isShown, tabindex: isShown ? 0 : -1 });
      if (isShown) tab.scrollIntoView({ block: 'nearest', inline: 'nearest' });
    }
    set(sectionOf(view), { 'aria-labelledby': `tab-${view}` });
    if (sectionOf(view) === el('traffic')) {
      mode = view;
      applyFilter();
      drawDensity();
      if (chosen >= 0 && placeOf(chosen) >= 0) goTo(placeOf(chosen) * ROW - room() / 2);
    }
    for (const call of shows) call(view);
  }

  function prepareTabs() {
    for (const part of document.querySelectorAll(`[data-in=${data.live ? 'report' : 'live'}]`)) part.remove();
    for (const tab of document.querySelectorAll('[role=tab]')) {
      const section = set(sectionOf(tab.dataset.view), { role: 'tabpanel' });
      set(tab, { id: `tab-${tab.dataset.view}`, 'aria-controls': section.id });
      if (section.id !== 'traffic') section.tabIndex = 0;
      tab.onclick = () => show(tab.dataset.view);
    }
    document.querySelector('nav').onkeydown = stepTabs;
  }

  function listen() {
    for (const id of ['node', 'subject', 'text', 'onlyfaults']) el(id).addEventListener('input', applyFilter);
    for (const id of ['from', 'to']) el(id).onchange = readStretch;
    for (const id of ['node', 'subject']) el(id).onblur = () => data.live && fillSelects();
    el('filter').onsubmit = () => false;
    el('filter').onreset = () => { clearFilter(); return false; };
    el('list').onscroll = scroll;
    el('list').onkeydown = step;
    el('rows').onclick = (event) => {
      const row = event.target.closest('[data-message]');
      if (row) choose(Number(row.dataset.message));
    };
    el('zoom').onclick = ({ target: { dataset: { by } } }) => by && zoom(Number(by));
    el('close').onclick = close;
    document.onkeydown = ({ key }) => { if (key === 'Escape' && !el('detail').hidden) close(); };
    window.onresize = () => { drawDensity(); goTo(top); };
    window.onhashchange = () => show(location.hash.slice(1));
  }

  document.querySelector('h1').textContent = data.title;
  prepareTabs();
  if (!data.live) showOverview();
  fillSelects();
  measure();
  followDrag();
  listen();
  if (count() < 1e6) searches = [names, subjects, payloads, notes].map(searchable);
  show(location.hash.slice(1));
  document.body.dataset.ready = 'yes';
  return { data, el, set, make, makeSvg, button, table, clock, oneLine, detail, show, shows, changed };
})();
