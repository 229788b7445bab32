'use strict';
// The page of a report. Names and payloads are whatever the log holds: they become text nodes, never
// markup. Of the messages only those in sight are elements.
(() => {
  const data = JSON.parse(document.getElementById('data').textContent);
  const { kinds, names, subjects, payloads, notes, columns } = data;
  const total = columns.time.length;
  const ROW = 22;
  const el = (id) => document.getElementById(id);
  const name = (index) => (index < 0 ? '' : names[index]);
  const isFault = (i) => kinds[columns.kind[i]].fault;
  const kindOf = (i) => kinds[columns.kind[i]].name;

  const make = (tag, className, text) => {
    const made = document.createElement(tag);
    if (className) made.className = className;
    if (text !== undefined) made.textContent = text;
    return made;
  };
  const makeSvg = (tag, attributes, text) => {
    const made = document.createElementNS('http://www.w3.org/2000/svg', tag);
    for (const key of Object.keys(attributes)) made.setAttribute(key, attributes[key]);
    if (text !== undefined) made.textContent = text;
    return made;
  };
  const time = (i) => new Date(data.begin + columns.time[i]).toISOString().slice(11, 23);
  const payloadOf = (i) => (columns.payload[i] < 0 ? '' : payloads[columns.payload[i]]);
  const noteOf = (i) => (columns.note[i] < 0 ? '' : notes[columns.note[i]]);
  const oneLine = (text) => (text.length > 300 ? text.slice(0, 300) + '\u2026' : text)
    .replace(/[\0-\x1f\x7f-\x9f\u2028\u2029\u202a-\u202e\u2066-\u2069]/g, (c) => {
      const known = { '\n': '\\n', '\t': '\\t', '\r': '\\r' }[c];
      return known || '\\x' + c.charCodeAt(0).toString(16).padStart(2, '0');
    });

  // ---- overview ----

  function table(part) {
    const made = make('table');
    const head = made.createTHead().insertRow();
    const isNumber = part.header.map((title) => title.startsWith('>'));
    part.header.forEach((title, i) => {
      head.append(make('th', isNumber[i] ? 'number' : '', title.replace(/^>/, '')));
    });
    const body = made.createTBody();
    for (const cells of part.rows) {
      const row = body.insertRow();
      cells.forEach((cell, i) => row.append(make('td', isNumber[i] ? 'number' : '', String(cell))));
    }
    return made;
  }

  function showOverview() {
    document.querySelector('h1').textContent = data.title;
    el('span').textContent = data.head.join(' \u00b7 ');
    const wrong = make('div', data.wrong.length ? 'wrong' : '');
    wrong.append(make('h2', '', data.wrong.length ? 'What went wrong' : 'Nothing went wrong'));
    for (const group of data.wrong) {
      wrong.append(make('strong', '', `${group.title}: ${group.number}`));
      const list = wrong.appendChild(make('ul'));
      for (const [what, count, when] of group.rows) {
        const item = list.appendChild(make('li', '', `${count} \u00d7 ${what} (${when})`));
        item.addEventListener('click', () => {
          el('filter').reset();
          el('faults').checked = true;
          show('messages');
        });
      }
    }
    el('overview').append(wrong);
    for (const part of data.tables) {
      if (part.rows.length) el('overview').append(make('h2', '', part.title), table(part));
    }
    for (const remark of data.remarks) el('overview').append(make('p', '', remark));
    if (!el('graph').firstElementChild) {
      el('graph').append(make('p', '', 'As a table: Graphviz is not installed, or this is too much for it.'), table(data.graph));
    }
  }

  // ---- which messages ----

  let shown = new Uint32Array(total); // numbers of the messages that pass the filter
  let stretch = null; // [from, to] in milliseconds, or all
  let mode = 'messages';
  let chosen = -1;
  let lives = []; // in the chart: indexes of the nodes, in order

  function fillSelect(select, texts, title) {
    select.append(new Option(title, ''));
    texts.map((text, i) => [text, i]).sort((a, b) => (a[0] < b[0] ? -1 : 1))
      .forEach(([text, i]) => select.append(new Option(oneLine(text).slice(0, 80), String(i))));
  }

  // Whether each of the texts holds the wanted one.
  const holding = (texts, wanted) => texts.map((text) => text.toLowerCase().includes(wanted));

  function applyFilter() {
    const node = el('node').value === '' ? null : Number(el('node').value);
    const subject = el('subject').value === '' ? null : Number(el('subject').value);
    const wanted = el('text').value.toLowerCase();
    const inName = wanted && holding(names, wanted);
    const inSubject = wanted && holding(subjects, wanted);
    const inPayload = wanted && holding(payloads, wanted);
    const inNote = wanted && holding(notes, wanted);
    const faults = el('faults').checked;
    const { src, dst, subject: topic, payload, note, time: at } = columns;
    const found = new Uint32Array(total);
    let count = 0;
    for (let i = 0; i < total; ++i) {
      if (stretch && (at[i] < stretch[0] || at[i] > stretch[1])) continue;
      if (node !== null && src[i] !== node && dst[i] !== node) continue;
      if (subject !== null && topic[i] !== subject) continue;
      if (faults && !isFault(i)) continue;
      if (wanted && !(inName[src[i]] || inName[dst[i]] || inSubject[topic[i]] ||
          inPayload[payload[i]] || inNote[note[i]])) continue;
      found[count++] = i;
    }
    shown = found.subarray(0, count);
    el('count').textContent = `${count.toLocaleString('en')} of ${total.toLocaleString('en')} messages`;
    lives = livesOf();
    el('list').scrollTop = 0;
    drawDensity();
    draw();
  }

  function livesOf() {
    const seen = new Set();
    for (let i = 0; i < shown.length && seen.size < names.length; ++i) {
      for (const index of endsOf(shown[i])) seen.add(index);
    }
    return [...seen].sort((a, b) => a - b);
  }

  // Where a message begins and ends in the chart; a publication goes to the bus.
  function endsOf(i) {
    const src = columns.src[i], dst = columns.dst[i];
    const to = dst >= 0 ? dst : data.bus;
    return [src >= 0 ? src : to, to];
  }

  // ---- drawing what is in sight ----

  function draw() {
    const list = el('list'), rows = el('rows');
    const isChart = mode === 'chart';
    el('lifelines').hidden = !isChart;
    rows.style.height = `${shown.length * ROW}px`;
    rows.style.minWidth = isChart ? `${x(lives.length)}px` : '';
    const first = Math.max(0, Math.floor(list.scrollTop / ROW) - 10);
    const last = Math.min(shown.length, first + Math.ceil(list.clientHeight / ROW) + 20);
    rows.replaceChildren(...(isChart ? [drawChart(first, last)] : drawRows(first, last)));
  }

  const classOf = (i) => {
    const kind = kindOf(i);
    const colour = isFault(i) ? 'fault' : kind === 'answer' || kind === 'call' ? 'call' : 'publish';
    return colour + (i === chosen ? ' chosen' : '');
  };

  function drawRows(first, last) {
    const made = [];
    for (let r = first; r < last; ++r) {
      const i = shown[r];
      const row = make('div', `row ${classOf(i)}`);
      row.style.top = `${r * ROW}px`;
      row.dataset.message = i;
      const what = isFault(i) ? `${kindOf(i).toUpperCase()} ${noteOf(i)} ` : '';
      const arrow = isFault(i) ? '\u2717' : kindOf(i) === 'answer' ? '\u21e0' : kindOf(i) === 'call' ? '\u21d2' : '\u2192';
      const goal = columns.dst[i] < 0 && kindOf(i) !== 'unstick' ? '*' : name(columns.dst[i]);
      row.append(make('span', 'time', time(i)), make('span', 'from', oneLine(name(columns.src[i]))),
        make('span', 'arrow', arrow), make('span', 'to', oneLine(goal)),
        make('span', 'subject', oneLine(columns.subject[i] < 0 ? '' : subjects[columns.subject[i]])),
        make('span', 'payload', what + oneLine(payloadOf(i))));
      made.push(row);
    }
    return made;
  }

  const x = (position) => 160 + position * 170;

  function drawChart(first, last) {
    const top = first * ROW, height = (last - first) * ROW;
    el('lifelines').replaceChildren(...lives.map((index, position) => {
      const made = make('span', '', oneLine(names[index]));
      made.title = names[index];
      made.style.left = `${x(position)}px`;
      return made;
    }));
    const svg = makeSvg('svg', { width: x(lives.length), height });
    svg.style.top = `${top}px`;
    lives.forEach((_, position) => {
      svg.append(makeSvg('line', { class: 'life', x1: x(position), x2: x(position), y1: 0, y2: height }));
    });
    const positions = new Map(lives.map((index, position) => [index, position]));
    for (let r = first; r < last; ++r) svg.append(drawArrow(shown[r], (r - first) * ROW, positions));
    return svg;
  }

  function drawArrow(i, y, positions) {
    const [src, dst] = endsOf(i).map((index) => x(positions.get(index)));
    const group = makeSvg('g', { class: classOf(i), 'data-message': i });
    const line = y + ROW - 5;
    const head = src <= dst ? -6 : 6;
    const dashes = kindOf(i) === 'answer' || kindOf(i) === 'deliver' ? '5 3' : 'none';
    const path = src === dst
      ? `M${src} ${line - 6}h22v6h-22m6 -4l-6 4l6 4`
      : `M${src} ${line}H${dst}m${head} -4l${-head} 4l${head} 4`;
    const label = (isFault(i) ? `${kindOf(i).toUpperCase()} ` : '') +
      (columns.subject[i] < 0 ? noteOf(i) : subjects[columns.subject[i]]) + ' ' + payloadOf(i);
    const room = Math.max(Math.abs(dst - src), 150) / 6.2;
    const text = oneLine(label);
    group.append(makeSvg('rect', { x: 0, y, width: x(positions.size), height: ROW }),
      makeSvg('text', { class: 'time', x: 6, y: y + 14 }, time(i)),
      makeSvg('path', { d: path, 'stroke-dasharray': dashes }),
      makeSvg('text', { x: Math.min(src, dst) + 6, y: y + 13 },
        text.length > room ? text.slice(0, room) + '\u2026' : text));
    return group;
  }

  // ---- one message ----

  function choose(i) {
    chosen = i;
    const rows = [['From', name(columns.src[i]) || '\u2014'],
      ['To', name(columns.dst[i]) || (kindOf(i) === 'publish' || kindOf(i) === 'sticky' ? 'every subscriber' : '\u2014')],
      ['Topic or address', columns.subject[i] < 0 ? '\u2014' : subjects[columns.subject[i]]],
      ['Time', time(i)], ['Size', columns.size[i] < 0 ? 'not in the log' : `${columns.size[i]} bytes`]];
    if (columns.took[i] >= 0) rows.push(['Took', columns.took[i] ? `${columns.took[i]} ms` : 'less than 1 ms']);
    if (noteOf(i)) rows.push(['Note', noteOf(i)]);
    const detail = el('detail');
    detail.hidden = false;
    detail.querySelector('h2').textContent = kindOf(i);
    detail.querySelector('dl').replaceChildren(
      ...rows.flatMap(([key, value]) => [make('dt', '', key), make('dd', '', value)]));
    el('payload').hidden = columns.payload[i] < 0;
    el('payload').textContent = payloadOf(i);
    showRelated(i);
    draw();
  }

  function showRelated(i) {
    const origin = columns.ref[i];
    const related = origin >= 0 ? [origin] : [];
    for (let j = i + 1; j < total && related.length < 50; ++j) {
      if (columns.ref[j] === i) related.push(j);
    }
    el('related').replaceChildren(...related.map((j) => {
      const other = name(columns.dst[j]) || name(columns.src[j]);
      const made = make('button', '', `${time(j)} ${kindOf(j)}: ${other}`);
      made.addEventListener('click', () => reveal(j));
      return made;
    }));
  }

  function reveal(i) {
    const row = shown.indexOf(i);
    if (row < 0) {
      el('filter').reset();
      setTimeout(() => reveal(i)); // when the filter has been applied, which scrolls to the top
      return;
    }
    el('list').scrollTop = row * ROW - el('list').clientHeight / 2;
    choose(i);
  }

  // ---- the stretch of time ----

  const span = total ? Math.max(1, columns.time[total - 1] - columns.time[0]) : 1;

  function drawDensity(drag) {
    const canvas = el('density');
    const width = canvas.width = canvas.clientWidth || 1;
    const height = canvas.height;
    const bars = new Float64Array(width), wrong = new Uint8Array(width);
    const start = total ? columns.time[0] : 0;
    for (let i = 0; i < total; ++i) {
      const bar = Math.min(width - 1, Math.max(0, Math.floor((columns.time[i] - start) / span * (width - 1))));
      ++bars[bar];
      if (isFault(i)) wrong[bar] = 1;
    }
    const most = bars.reduce((a, b) => Math.max(a, b), 1);
    const style = getComputedStyle(document.documentElement);
    const context = canvas.getContext('2d');
    for (let bar = 0; bar < width; ++bar) {
      if (!bars[bar]) continue;
      context.fillStyle = style.getPropertyValue(wrong[bar] ? '--fault' : '--call');
      const tall = Math.max(2, Math.log1p(bars[bar]) / Math.log1p(most) * height);
      context.fillRect(bar, height - tall, 1, tall);
    }
    const marked = drag || (stretch && stretch.map((ms) => (ms - start) / span * (width - 1)));
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
    canvas.addEventListener('pointermove', (event) => {
      if (from !== null) drawDensity([from, event.offsetX]);
    });
    canvas.addEventListener('pointerup', (event) => {
      const ends = [from, event.offsetX].sort((a, b) => a - b);
      from = null;
      const ms = (offset) => columns.time[0] + offset / Math.max(1, canvas.clientWidth - 1) * span;
      stretch = ends[1] - ends[0] < 3 ? null : [ms(ends[0]), ms(ends[1])];
      showStretch();
      applyFilter();
    });
  }

  // The two fields hold the stretch as times of day.
  function showStretch() {
    const day = (offset) => new Date(data.begin + Math.round(offset)).toISOString().slice(11, 23);
    el('from').value = stretch ? day(stretch[0]) : '';
    el('to').value = stretch ? day(stretch[1]) : '';
  }

  function readStretch() {
    const midnight = data.begin - data.begin % 86400000;
    const offset = (text, otherwise) => text
      ? Date.parse(`1970-01-01T${text.padEnd(8, ':00')}Z`) + midnight - data.begin : otherwise;
    const ends = [offset(el('from').value, -Infinity), offset(el('to').value, Infinity)];
    stretch = ends[0] === -Infinity && ends[1] === Infinity ? null
      : ends.map((end) => Math.min(Math.max(end, columns.time[0]), columns.time[0] + span));
    applyFilter();
  }

  // Up and down go from message to message.
  function step(event) {
    const by = { ArrowDown: 1, ArrowUp: -1 }[event.key];
    const row = shown.indexOf(chosen) + by;
    if (!by || row < 0 || row >= shown.length) return;
    event.preventDefault();
    const list = el('list');
    if (row * ROW < list.scrollTop) list.scrollTop = row * ROW;
    const bottom = (row + 3) * ROW - list.clientHeight;
    if (bottom > list.scrollTop) list.scrollTop = bottom;
    choose(shown[row]);
  }

  // ---- the page ----

  function show(view) {
    const isTraffic = view === 'messages' || view === 'chart';
    el('overview').hidden = view !== 'overview';
    el('graph').hidden = view !== 'graph';
    el('traffic').hidden = !isTraffic;
    for (const tab of document.querySelectorAll('nav button')) {
      tab.setAttribute('aria-selected', String(tab.dataset.view === view));
    }
    if (isTraffic) {
      mode = view;
      applyFilter();
    }
  }

  showOverview();
  fillSelect(el('node'), names, 'all');
  fillSelect(el('subject'), subjects, 'all');
  followDrag();
  for (const tab of document.querySelectorAll('nav button')) {
    tab.addEventListener('click', () => show(tab.dataset.view));
  }
  for (const id of ['node', 'subject', 'text', 'faults']) el(id).addEventListener('input', applyFilter);
  for (const id of ['from', 'to']) el(id).addEventListener('change', readStretch);
  el('filter').addEventListener('submit', (event) => event.preventDefault());
  el('filter').addEventListener('reset', () => {
    stretch = null;
    setTimeout(applyFilter);
  });
  el('list').addEventListener('scroll', draw);
  el('list').addEventListener('keydown', step);
  window.addEventListener('resize', () => { if (!el('traffic').hidden) applyFilter(); });
  el('rows').addEventListener('click', (event) => {
    const row = event.target.closest('[data-message]');
    if (row) choose(Number(row.dataset.message));
  });
  el('close').addEventListener('click', () => {
    el('detail').hidden = true;
    chosen = -1;
    draw();
  });
  show(location.hash.slice(1) || 'overview');
  document.body.dataset.ready = 'yes';
})();
