// The page of a running bus. Figures come four times a second, of the view that is open; messages as
// they come, while they are shown.
if (page.data.live) (() => {
  const { data, el, set, make, makeSvg, button, table, clock, oneLine } = page;
  const { columns, names, subjects, payloads, notes } = data;
  const LATEST = 10000;
  const kindOf = new Map(data.kinds.map((kind, i) => [kind.name, i]));
  const key = new URLSearchParams(location.search).get('key') || '';

  // ---- messages ----

  const known = [new Map([[names[0], 0]]), new Map()]; // indexes of names and of subjects
  let latest = []; // messages as they have come
  let last = 0; // number of the last one

  function indexOf(texts, indexes, text) {
    if (text === null) return -1;
    if (!indexes.has(text)) indexes.set(text, texts.push(text) - 1);
    return indexes.get(text);
  }

  function takeMessages(rows) {
    const before = names.length + subjects.length;
    latest.push(...rows.filter(([number]) => number > last)); // after a break some come again
    last = latest[latest.length - 1][0];
    const gone = Math.max(latest.length - LATEST, 0);
    latest = latest.slice(gone);
    const lists = Object.values(columns);
    for (const part of [payloads, notes, ...lists]) part.length = 0;
    const places = new Map();
    latest.forEach(([number, ms, kind, src, dst, subject, payload, size, ref, note, took], place) => {
      places.set(number, place);
      const values = [ms, kindOf.get(kind), indexOf(names, known[0], src), indexOf(names, known[0], dst),
        indexOf(subjects, known[1], subject), payload === null ? -1 : payloads.push(payload) - 1, size,
        places.has(ref) ? places.get(ref) : -1, note === null ? -1 : notes.push(note) - 1, took];
      for (let i = 0; i < lists.length; ++i) lists[i].push(values[i]);
    });
    page.changed(gone, names.length + subjects.length > before);
    if (names.length + subjects.length > 40000) location.reload(); // nearly all of them are gone
  }

  // ---- tables, whose rows stay the elements that they are ----

  const tables = new Map(); // of each view

  function drawLine(cell, counts) {
    const line = cell.firstChild || cell.appendChild(makeSvg('svg', { viewBox: '0 0 120 22' }));
    const most = Math.max(...counts, 1);
    const d = `M${counts.map((n, i) => `${i * 2 + 1} ${(21 - n / most * 20).toFixed(1)}`).join('L')}`;
    set(line.firstChild || line.appendChild(makeSvg('path', {})), { d });
  }

  function liveTable(section, title, header) {
    if (title) section.append(make('h2', '', title));
    const body = section.appendChild(table({ header, rows: [] })).tBodies[0];
    const rows = new Map();
    return (wanted) => {
      wanted.forEach(([id, className, cells], place) => {
        let row = rows.get(id);
        if (!row) {
          rows.set(id, row = make('tr'));
          row.append(...header.map((head) => make('td', head.startsWith('>') ? 'number' : '')));
        }
        row.className = className;
        cells.forEach((cell, i) => {
          const text = oneLine(String(cell));
          if (Array.isArray(cell)) drawLine(row.cells[i], cell);
          else if (row.cells[i].textContent !== text) row.cells[i].textContent = text;
        });
        if (body.rows[place] !== row) body.insertBefore(row, body.rows[place] || null);
      });
      const ids = new Set(wanted.map(([id]) => id));
      for (const [id, row] of rows) if (!ids.has(id)) { row.remove(); rows.delete(id); }
    };
  }

  function drawTables(parts) {
    parts.forEach(([title, header, rows], i) => {
      if (!tables.has(view + i)) tables.set(view + i, liveTable(el(view), title, header));
      tables.get(view + i)(rows);
    });
  }

  // ---- faults ----

  const messageOf = ([, at, kind, src, dst, subject, payload, size, , note, took]) => ({
    ms: at, kind, isFault: data.kinds[kindOf.get(kind)].fault, src: src || '', dst: dst || '',
    subject: subject || '', payload, size, note: note || '', took });
  const buttons = new Map();

  function openFault(fault, row) {
    page.detail(messageOf(row), 'What led to the fault', [...fault.story, fault.row]
      .map((other) => [messageOf(other), () => openFault(fault, other)]));
  }

  function takeFaults(faults) {
    for (const fault of faults) {
      let shown = buttons.get(fault.id);
      if (!shown) {
        buttons.set(fault.id, shown = button('', 'link fault', () => openFault(fault, fault.row)));
        el('faults').prepend(shown);
      }
      shown.textContent = `${clock(fault.ms)} ${fault.row[2]}: ${oneLine(fault.what)}` +
        (fault.count > 1 ? ` (${fault.count.toLocaleString('en')} times)` : '');
    }
    while (buttons.size > 200) {
      const [id, oldest] = buttons.entries().next().value;
      oldest.remove();
      buttons.delete(id);
    }
  }

  // ---- the graph: what has a place keeps it ----

  const STEP = 44, HIGH = 28, WIDTH = 180;
  const COLUMNS = { left: { x: 60, taken: [] }, topic: { x: 350, taken: [] }, right: { x: 640, taken: [] } };
  const svg = makeSvg('svg', { id: 'live', role: 'img', 'aria-label': 'Who talks to whom' });
  const lines = makeSvg('g', {}), boxes = makeSvg('g', {});
  const marker = makeSvg('marker', { id: 'head', viewBox: '0 0 8 8', refX: 7, refY: 4, markerWidth: 11,
    markerHeight: 11, markerUnits: 'userSpaceOnUse', orient: 'auto' });
  marker.append(makeSvg('path', { d: 'M0 0L8 4L0 8z' }));
  svg.append(marker, lines, boxes);
  const drawn = new Map(); // of nodes, topics and edges

  function box(id, name, column) {
    if (drawn.has(id)) return drawn.get(id);
    const { x, taken } = COLUMNS[column];
    const free = taken.indexOf(null), slot = free < 0 ? taken.length : free;
    const y = 24 + slot * STEP, text = oneLine(name);
    taken[slot] = id;
    const group = boxes.appendChild(makeSvg('g', { class: column === 'topic' ? 'topic' : 'node' }));
    group.append(makeSvg('title', {}, text), makeSvg('rect', { x, y, width: WIDTH, height: HIGH }),
      makeSvg('text', { x: x + WIDTH / 2, y: y + HIGH / 2 }, text.length > 24 ? `${text.slice(0, 23)}\u2026` : text));
    drawn.set(id, { parts: [group], column, slot, left: x, right: x + WIDTH, y: y + HIGH / 2 });
    return drawn.get(id);
  }

  function wayOf(from, to) {
    if (from.column === to.column) { // around the outside
      const isLeft = from.column === 'left', side = isLeft ? 'left' : 'right';
      const out = from[side] + (isLeft ? -1 : 1) * 75;
      return [`M${from[side]} ${from.y}C${out} ${from.y} ${out} ${to.y} ${to[side]} ${to.y}`,
        from[side] + (isLeft ? -20 : 20), (from.y + to.y) / 2];
    }
    const isForward = from.left < to.left;
    const [x1, x2] = isForward ? [from.right, to.left] : [from.left, to.right];
    const [y1, y2] = isForward ? [from.y - 5, to.y - 5] : [from.y + 5, to.y + 5];
    const middle = (x1 + x2) / 2;
    return [`M${x1} ${y1}C${middle} ${y1} ${middle} ${y2} ${x2} ${y2}`, middle, (y1 + y2) / 2];
  }

  function drawEdge(id, [kind, , , times, lost, title], from, to) {
    if (!drawn.has(id)) {
      const [d, x, y] = wayOf(from, to);
      const line = lines.appendChild(makeSvg('path', { d, 'marker-end': 'url(#head)' }));
      line.append(makeSvg('title', {}));
      drawn.set(id, { parts: [line, boxes.appendChild(makeSvg('text', { class: 'lost', x, y }))] });
    }
    const [path, text] = drawn.get(id).parts;
    set(path, { class: `${kind}${times ? '' : ' still'}${lost ? ' lost' : ''}`,
      'stroke-width': (1 + 0.7 * Math.log2(1 + times)).toFixed(1) });
    path.firstChild.textContent = title;
    text.textContent = lost ? `\u2717 ${lost.toLocaleString('en')}` : '';
  }

  function drawGraph([nodes, edges, more]) {
    const ids = new Set();
    const speaks = new Set(edges.filter(([kind]) => kind === 'publish').map(([, src]) => src));
    const { left: { taken: left }, right: { taken: right } } = COLUMNS;
    for (const [name, isGone] of nodes) {
      const { parts: [group] } = box(`n${name}`, name,
        speaks.has(name) || left.length < right.length ? 'left' : 'right');
      set(group, { class: isGone ? 'node gone' : 'node' });
    }
    for (const edge of edges) {
      const [kind, src, dst] = edge, id = `e${kind}\0${src}\0${dst}`;
      const ends = [[kind === 'deliver', src], [kind === 'publish', dst]].map(([isTopic, name]) => {
        ids.add((isTopic ? 't' : 'n') + name);
        return box((isTopic ? 't' : 'n') + name, name || '?', isTopic ? 'topic' : 'right');
      });
      ids.add(id);
      drawEdge(id, edge, ...ends);
    }
    for (const [id, { parts, column, slot }] of drawn) {
      if (ids.has(id)) continue;
      if (column) COLUMNS[column].taken[slot] = null;
      for (const part of parts) part.remove();
      drawn.delete(id);
    }
    const high = Math.max(3, ...Object.values(COLUMNS).map(({ taken }) => taken.length));
    set(svg, { viewBox: `0 0 880 ${40 + high * STEP}` });
    el('drawing').lastChild.textContent = more;
  }

  // ---- the feed ----

  let source = null, view = '', isPaused = false, isHeld = false;

  function drawHead(parts) {
    el('span').replaceChildren(...parts.map(([title, text, isFault]) => {
      const made = make('span', isFault ? 'fault' : '', title ? `${title} ` : '');
      made.append(make('b', '', title || !isPaused ? text : `${text}, paused`));
      return made;
    }));
  }

  function connect() {
    if (source) source.close();
    isHeld = false;
    source = new EventSource(`feed?${new URLSearchParams({ key, view, after: view === 'messages' ? last : 0 })}`);
    const on = (event, take) => source.addEventListener(event, ({ data: text }) => {
      if (!isHeld) take(JSON.parse(text));
    });
    on('messages', (rows) => { if (!isPaused || !last) takeMessages(rows); });
    on('faults', takeFaults);
    on('figures', ({ head, part }) => {
      drawHead(head);
      (view === 'graph' ? drawGraph : drawTables)(part);
      isHeld = isPaused; // also where another view is opened meanwhile
    });
    source.onerror = () => {
      (el('span').firstChild || el('span')).textContent = 'no connection' +
        (source.readyState === EventSource.CLOSED ? '' : ', trying again');
    };
  }

  el('pause').onclick = () => {
    isPaused = !isPaused;
    set(el('pause'), { 'aria-pressed': isPaused });
    connect();
  };
  el('drawing').replaceChildren(svg, make('p'));
  page.shows.push((wanted) => {
    const next = wanted === 'chart' ? 'messages' : wanted;
    if (next !== view) connect(view = next);
  });
  page.show(location.hash.slice(1));
})();
