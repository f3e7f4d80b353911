// The dashboard. Follows the journal by long polls, and when it moves asks for what else is shown.
// Everything that came over the wire is put in as text, never as HTML.

const mostRequests = 300;
const mostRows = 100;
const longestWait = 5; // seconds; faults set by others are seen at the latest then
const betweenPolls = 200; // milliseconds, for a journal that never rests
const betweenLooks = 1000;
const beforeRetry = 1000;
const longestSilence = 20000;

const rows = new Map(); // of requests, by their entry's id: {entry, row}
let newest = 0; // entry that has had a row
let change = 0; // of the journal, as it was told last
let isNew = true; // nothing is known of the sandbox, or it may be another one
let wait = 0; // so many seconds for a change
let isPaused = false;
let wakeUp = () => {};
let poll = new AbortController();
let isStale = false;
let isLooking = false;
let shownExchange = 0;
let usage = null;

const byId = (id) => document.getElementById(id);
const rest = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));
const byTagName = (namespace) => (name, attributes = {}, ...children) => {
    const element = document.createElementNS(namespace, name);
    for (const [key, value] of Object.entries(attributes))
        element.setAttribute(key, value);
    element.append(...children);
    return element;
};
const html = byTagName('http://www.w3.org/1999/xhtml');
const svg = byTagName('http://www.w3.org/2000/svg');

// --- The sandbox

async function ask(path, method = 'GET', body = undefined, signal = undefined) {
    const headers = method === 'POST' ? {'Content-Type': 'application/json'} : {};
    const reply = await fetch(path, {method, headers, body: JSON.stringify(body), signal});
    const object = await reply.json();
    if (!reply.ok)
        throw new Error(object.error?.message ?? `status ${reply.status}`);
    return object;
}

async function follow() {
    for (;;) {
        if (isPaused)
            await new Promise((resolve) => { wakeUp = resolve; });
        poll = new AbortController();
        const alarm = setTimeout(() => poll.abort(), longestSilence);
        try {
            await followOnce();
            if (isPaused)
                continue;
            showConnection('live');
            wait = longestWait;
            look();
            await rest(betweenPolls);
        } catch (error) {
            wait = 0;
            if (isPaused)
                continue;
            isNew = true;
            showConnection('lost');
            await rest(beforeRetry);
        } finally {
            clearTimeout(alarm);
        }
    }
}

async function followOnce() {
    const since = isNew ? 0 : change;
    const journal = await ask(`journal?since=${since}&wait=${wait}&most=${mostRequests}`, 'GET',
                              undefined, poll.signal);
    if (journal.change < since)
        throw new Error('It counts from the beginning again: it is another sandbox.');
    if (isNew)
        await begin();
    isNew = false;
    showJournal(journal);
}

// What was seen of a sandbox that ended is gone with it.
async function begin() {
    showScenarios((await ask('scenarios')).scenarios);
    for (const {row} of rows.values())
        row.remove();
    rows.clear();
    newest = 0;
}

// Asks for what may have changed with the journal; not all the time, if that changes all the time.
async function look() {
    isStale = true;
    if (isLooking)
        return;
    isLooking = true;
    try {
        while (isStale) {
            isStale = false;
            showState(await ask('state'));
            showUsage(await ask(`usage?seconds=${byId('span').value}`));
            showFaults((await ask('faults')).faults);
            await rest(betweenLooks);
        }
    } catch (error) {
        // A connection that is lost is told by the journal's poll.
        if (!(error instanceof TypeError))
            say(`The sandbox cannot show its state: ${error.message}`);
    } finally {
        isLooking = false;
    }
}

async function order(sentence, path, method, body) {
    try {
        const answer = await ask(path, method, body);
        say(sentence);
        if (answer.faults)
            showFaults(answer.faults);
        look();
    } catch (error) {
        say(`That did not work: ${error.message}`);
    }
}

function say(sentence) {
    byId('outcome').textContent = sentence;
}

function showConnection(state) {
    const names = {live: 'Live', lost: 'Connection lost', paused: 'Paused'};
    const connection = byId('connection');
    if (connection.dataset.state === state)
        return;
    connection.dataset.state = state;
    connection.textContent = names[state];
    byId('lost').hidden = state !== 'lost';
}

function pause() {
    isPaused = !isPaused;
    byId('pause').setAttribute('aria-pressed', isPaused);
    byId('pause').textContent = isPaused ? 'Go on' : 'Pause';
    wait = 0;
    if (!isPaused)
        return wakeUp();
    showConnection('paused');
    poll.abort();
}

// --- Requests

function showJournal(journal) {
    change = journal.change;
    for (const entry of journal.entries) {
        if (rows.has(entry.id) || entry.id > newest)
            showEntry(entry);
    }
    for (const [id, {row}] of rows) {
        if (id >= journal.first && rows.size <= mostRequests)
            break;
        row.remove();
        rows.delete(id);
    }
    showCounts();
}

function showEntry(entry) {
    const known = rows.get(entry.id);
    const row = known ? known.row : html('tr', {tabindex: -1, 'data-id': entry.id});
    rows.set(entry.id, {entry, row});
    newest = Math.max(newest, entry.id);
    row.replaceChildren(...cellsOf(entry));
    row.hidden = !matches(entry);
    if (!known)
        byId('requests-rows').prepend(row);
    if (shownExchange === entry.id)
        fillExchange(entry);
}

function cellsOf(entry) {
    const {request, reply, ending} = entry;
    const status = reply ? statusText(reply.status) : '…';
    return [
        html('td', {class: 'medium time'}, timeOf(entry.time)),
        html('td', {class: 'target', title: `${request.method} ${request.target}`},
             html('b', {}, request.method), ' ', request.target),
        html('td', {class: 'wide'}, entry.operation),
        html('td', {}, html('span', {class: `pill ${statusClass(reply?.status)}`}, status)),
        html('td', {class: ending && ending !== 'sent' ? 'wide broken' : 'wide'}, ending ?? '…'),
        html('td', {class: 'medium fault'}, entry.fault ? nameOf(entry.fault) : ''),
        html('td', {class: 'medium number'}, ending ? durationText(entry.duration_ms) : '…'),
    ];
}

function statusText(status) {
    return status === 0 ? 'none' : String(status);
}

function statusClass(status) {
    if (status === undefined)
        return 'pending';
    return status < 200 ? 'bad' : status < 300 ? 'good' : status < 400 ? 'calm'
        : status < 500 ? 'warn' : 'bad';
}

function durationText(milliseconds) {
    if (milliseconds >= 1000)
        return `${(milliseconds / 1000).toFixed(2)} s`;
    return `${milliseconds.toFixed(milliseconds < 1 ? 2 : milliseconds < 10 ? 1 : 0)} ms`;
}

// 2026-01-05T09:00:00.123Z
function timeOf(iso) {
    return iso.slice(11, 23);
}

function dayAndTime(iso) {
    return iso.slice(0, 16).replace('T', ' ');
}

function matches(entry) {
    const text = byId('filter').value.trim().toLowerCase();
    const operation = byId('operation').value;
    return (operation === '' || operation === entry.operation)
        && (text === '' || textOf(entry).toLowerCase().includes(text));
}

function textOf({operation, fault, ending, request, reply}) {
    return [operation, ending, fault ? JSON.stringify(fault) : '', request.method, request.target,
            request.headers.flat().join('\n'), request.body, reply?.status,
            reply?.headers.flat().join('\n'), reply?.body].join('\n');
}

function filterRequests() {
    for (const {entry, row} of rows.values())
        row.hidden = !matches(entry);
    showCounts();
}

function clearView() {
    for (const {row} of rows.values())
        row.remove();
    rows.clear();
    showCounts();
}

function showCounts() {
    const shown = [...rows.values()].filter(({row}) => !row.hidden);
    byId('requests-count').textContent =
        rows.size === mostRequests ? `the newest ${mostRequests}` : rows.size || '';
    byId('requests-empty').hidden = rows.size > 0;
    byId('requests-none').hidden = rows.size === 0 || shown.length > 0;
    // One row is in the order of the tab key; the arrow keys lead to the others.
    if (!shown.some(({row}) => row.tabIndex === 0) && shown.length > 0)
        shown.at(-1).row.tabIndex = 0;
}

function onRequestKey(event) {
    const row = event.target.closest('tr');
    if (event.key === 'Enter' || event.key === ' ') {
        event.preventDefault();
        return openExchange(row);
    }
    const step = {ArrowDown: 'nextElementSibling', ArrowUp: 'previousElementSibling'}[event.key];
    if (!step)
        return;
    event.preventDefault();
    let next = row[step];
    while (next?.hidden)
        next = next[step];
    next?.focus();
}

function onRequestFocus(event) {
    for (const {row} of rows.values())
        row.tabIndex = -1;
    event.target.tabIndex = 0;
}

// --- One exchange

function openExchange(row) {
    const known = rows.get(Number(row?.dataset.id));
    if (!known)
        return;
    shownExchange = known.entry.id;
    fillExchange(known.entry);
    byId('exchange').showModal();
}

function fillExchange(entry) {
    const {request, reply} = entry;
    byId('exchange-title').textContent = `${request.method} ${request.target}`;
    const facts = [['Operation', entry.operation], ['Time', entry.time]];
    if (reply)
        facts.push(['Took', durationText(entry.duration_ms)], ['Ended', entry.ending]);
    const parts = [factsOf(facts)];
    if (entry.fault)
        parts.push(html('h3', {}, 'Fault'), codeOf(indented(JSON.stringify(entry.fault))));
    parts.push(html('h3', {}, 'Request'), ...messageOf(request));
    if (reply)
        parts.push(html('h3', {}, `Reply: ${statusText(reply.status)}`), ...messageOf(reply));
    else
        parts.push(html('p', {class: 'empty'}, 'The reply is still on its way.'));
    byId('exchange-content').replaceChildren(...parts);
}

function factsOf(facts) {
    return html('dl', {}, ...facts.map(
        ([name, value]) => html('div', {}, html('dt', {}, name), html('dd', {}, value))));
}

function messageOf(message) {
    const headers = html('table', {class: 'headers'}, html('tbody', {}, ...message.headers.map(
        ([name, value]) => html('tr', {}, html('th', {scope: 'row'}, name),
                                html('td', {}, value)))));
    return [headers, bodyOf(message)];
}

function bodyOf({body, body_base64, body_size, body_sha256}) {
    if (body_size !== undefined) {
        return html('p', {class: 'empty'}, `A body of ${count(body_size, 'byte')}, SHA-256 `,
                    html('code', {}, body_sha256));
    }
    if (body_base64 !== undefined)
        return html('div', {}, html('p', {class: 'hint'}, 'In Base64:'), codeOf(body_base64));
    return body ? codeOf(indented(body)) : html('p', {class: 'empty'}, 'No body.');
}

function codeOf(text) {
    return html('pre', {tabindex: 0}, text);
}

// JSON with line breaks, and every token as it came: to parse it and write it again would change
// numbers and lose members that are there twice. Anything else as it is.
function indented(text) {
    try {
        JSON.parse(text);
    } catch (error) {
        return text;
    }
    let depth = 0;
    const line = () => '\n' + '  '.repeat(depth);
    const tokens = text.match(/"(?:[^"\\]|\\.)*"|[{}[\],:]|[^\s{}[\],:"]+/g);
    return tokens.map((token, index) => {
        if (token === '{' || token === '[') {
            ++depth;
            return '}]'.includes(tokens[index + 1]) ? token : token + line();
        }
        if (token === '}' || token === ']') {
            --depth;
            return '{['.includes(tokens[index - 1]) ? token : line() + token;
        }
        return token === ',' ? ',' + line() : token === ':' ? ': ' : token;
    }).join('');
}

// --- Faults

function nameOf(fault) {
    return fault.scenario ?? Object.entries(fault.do).map(
        ([name, value]) => typeof value === 'object' || String(value).length > 20
            ? name : `${name} ${value}`).join(', ');
}

function showFaults(faults) {
    byId('faults-rows').replaceChildren(...faults.map((fault) => html('tr', {},
        html('td', {}, html('b', {}, nameOf(fault)), ruleOf(fault)),
        html('td', {}, fault.operation ?? 'any'),
        html('td', {class: 'number'}, number(fault.seen)),
        html('td', {class: 'number'}, number(fault.done)))));
    byId('faults-rows').closest('table').hidden = faults.length === 0;
    byId('faults-empty').hidden = faults.length > 0;
    byId('faults-count').textContent = faults.length || '';
    byId('clear-faults').disabled = faults.length === 0;
    const names = new Set(faults.map((fault) => fault.scenario));
    for (const button of byId('scenarios').children)
        button.setAttribute('aria-pressed', names.has(button.dataset.name));
}

function ruleOf(fault) {
    const rule = JSON.stringify({when: fault.when, do: fault.do});
    return html('code', {title: rule}, rule);
}

function showScenarios(scenarios) {
    byId('scenarios').replaceChildren(...scenarios.map(({name, sentence}) => {
        const button = html('button', {type: 'button', 'data-name': name, 'aria-pressed': false},
                            html('b', {}, name), html('span', {}, sentence));
        button.addEventListener('click', () => order(`“${name}” is in force.`, 'scenario', 'POST',
                                                     {name}));
        return button;
    }));
}

// --- State

function showState({orders, licenses, payments}) {
    const paid = new Set(payments.map(({id}) => id));
    const licenceOf = new Map(licenses.map((licence) => [licence.id, licence]));
    showTable('orders', orders, (order) => orderCells(order, paid.has(order.id),
                                                      licenceOf.get(order.license_id)));
    showTable('licences', licenses, licenceCells);
}

// The newest first. The state has a thousand at most.
function showTable(name, list, cells) {
    byId(`${name}-rows`).replaceChildren(...list.slice(-mostRows).reverse().map(
        (item) => html('tr', {}, ...cells(item))));
    byId(`${name}-empty`).hidden = list.length > 0;
    byId(`${name}-rows`).closest('table').hidden = list.length === 0;
    byId(`${name}-count`).textContent =
        list.length > mostRows ? `the newest ${mostRows}` : list.length || '';
}

function orderCells(order, isPaid, licence) {
    const state = isPaid ? 'paid' : order.approved_at ? 'approved'
        : order.cancelled_at ? 'cancelled' : 'pending';
    const id = order.paypal_order_id;
    const colour = {paid: 'good', approved: 'calm', cancelled: 'warn', pending: 'pending'}[state];
    const page = html('a', {href: `/paypal/approve/${encodeURIComponent(id)}`, target: '_blank',
                            rel: 'noopener', title: 'The page on which the buyer approves'}, id);
    return [
        html('td', {class: 'code'}, page),
        html('td', {}, html('span', {class: `pill ${colour}`}, state)),
        html('td', {class: 'medium'}, order.plan_name),
        html('td', {class: 'number'}, `${order.price} ${order.currency}`),
        html('td', {class: 'medium'}, buyerOf(licence)),
        html('td', {class: 'wide time'}, dayAndTime(order.created_at)),
    ];
}

function licenceCells(licence) {
    const colour = licence.status === 'active' ? 'good' : 'pending';
    return [
        html('td', {class: 'number'}, String(licence.id)),
        html('td', {class: 'code'}, licence.license_key),
        html('td', {}, html('span', {class: `pill ${colour}`}, licence.status)),
        html('td', {class: 'medium'}, licence.product_code),
        html('td', {class: 'wide'}, licence.plan_code),
        html('td', {class: 'medium'}, buyerOf(licence)),
        html('td', {class: 'wide time'}, dayAndTime(licence.created_at)),
    ];
}

function buyerOf(licence) {
    return html('span', {title: licence?.email ?? ''},
                licence ? `${licence.first_name} ${licence.last_name}` : '');
}

// --- Usage events, as a plot

function showUsage(answer) {
    usage = answer;
    const total = sum(usage.counts.map(({events}) => events));
    byId('usage-count').textContent = total ? number(total) : '';
    byId('usage-empty').hidden = total > 0;
    byId('plot').hidden = total === 0;
    byId('legend').hidden = total === 0;
    if (total > 0)
        drawUsage();
    else
        byId('plot').replaceChildren();
}

// [[type, events], ...], the most frequent first and the rare ones, together, last.
function typesOf(counts) {
    const totals = new Map();
    for (const {event_type, events} of counts)
        totals.set(event_type, (totals.get(event_type) ?? 0) + events);
    return [...totals].sort(([a, m], [b, n]) => (a === null) - (b === null) || n - m);
}

function drawUsage() {
    const types = typesOf(usage.counts);
    byId('legend').replaceChildren(...types.map(([type, events], index) => html('li', {},
        html('i', {class: `series-${index}`}), type ?? 'other types', ' ',
        html('b', {}, number(events)))));

    const step = usage.step_s * 1000;
    const from = Date.parse(usage.from);
    const buckets = bucketsOf(usage.counts);
    // A few events alone look like a few, not like a wall.
    const steps = Math.max(Math.floor((Date.parse(usage.to) - from) / step) + 1, 12);
    // On its left is room for a million, on its right for half of a time.
    const frame = {left: 64, top: 26, width: byId('plot').clientWidth - 104, height: 230};
    const top = Math.max(...[...buckets.values()].map(({events}) => events));
    const scale = scaleFor(top);
    const x = (time) => frame.left + (time - from) / step / steps * frame.width;
    const y = (events) => frame.top + frame.height * (1 - events / scale.top);

    const names = types.map(([type]) => type);
    byId('plot').replaceChildren(svg('svg', {
        width: frame.left + frame.width + 40, height: frame.top + frame.height + 44, role: 'img',
        'aria-label': `Usage events: at most ${count(top, 'event')} in ${spanText(usage.step_s)}, `
            + `from ${usage.from} to ${usage.to}`},
        svg('text', {x: 0, y: 12}, `events in ${spanText(usage.step_s)}`),
        ...scale.ticks.flatMap((tick) => [
            svg('line', {class: 'grid', x1: frame.left, x2: frame.left + frame.width,
                         y1: y(tick), y2: y(tick)}),
            svg('text', {x: frame.left - 8, y: y(tick) + 4, 'text-anchor': 'end'}, number(tick))]),
        ...timeTicks(from, step, steps, frame.width).flatMap((time) => [
            svg('line', {class: 'tick', x1: x(time), x2: x(time), y1: y(0), y2: y(0) + 5}),
            svg('text', {x: x(time), y: y(0) + 20, 'text-anchor': 'middle'},
                timeText(time, step, steps))]),
        svg('text', {x: frame.left + frame.width, y: y(0) + 38, 'text-anchor': 'end'},
            'time, UTC'),
        ...[...buckets].map(([time, bucket]) => barOf(time, bucket, names, {
            x: x(time), width: Math.max(frame.width / steps - 2, 1), y}))));
}

// When each begins: {events, counts: [{event_type, events}, ...]}
function bucketsOf(counts) {
    const buckets = new Map();
    for (const item of counts) {
        const time = Date.parse(item.from);
        const bucket = buckets.get(time) ?? {events: 0, counts: []};
        bucket.events += item.events;
        bucket.counts.push(item);
        buckets.set(time, bucket);
    }
    return buckets;
}

function barOf(time, bucket, names, place) {
    const when = `${dayAndTime(new Date(time).toISOString())} UTC, ${spanText(usage.step_s)}`;
    const lines = bucket.counts.map(({event_type, events}) =>
        `${event_type ?? 'other types'}: ${number(events)}`);
    const group = svg('g', {class: 'bucket', 'data-events': bucket.events},
                      svg('title', {}, [when, ...lines].join('\n')));
    let below = 0;
    for (const [index, name] of names.entries()) {
        const events = bucket.counts.find(({event_type}) => event_type === name)?.events ?? 0;
        if (events === 0)
            continue;
        const bottom = place.y(below);
        below += events;
        // Seen even beside ten thousand others.
        const height = Math.max(bottom - place.y(below), 1.5);
        group.append(svg('rect', {class: `series-${index}`, x: place.x + 1, width: place.width,
                                  y: bottom - height, height}));
    }
    return group;
}

// From 0 to a round number that is not below the most: {top, ticks}
function scaleFor(most) {
    const power = 10 ** Math.floor(Math.log10(most / 4));
    const step = Math.max([1, 2, 5, 10].map((factor) => factor * power)
        .find((candidate) => candidate * 4 >= most), 1);
    const ticks = [0];
    while (ticks.at(-1) < most)
        ticks.push(ticks.at(-1) + step);
    return {top: ticks.at(-1), ticks};
}

// At times that people count in, with room for their labels.
function timeTicks(from, step, steps, width) {
    const least = step * steps / Math.max(Math.floor(width / 80), 1);
    const apart = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600,
                   43200].map((seconds) => seconds * 1000).find((each) => each >= least)
        ?? Math.ceil(least / 86400000) * 86400000;
    const ticks = [];
    for (let time = Math.ceil(from / apart) * apart; time < from + step * steps; time += apart)
        ticks.push(time);
    return ticks;
}

function timeText(time, step, steps) {
    const iso = new Date(time).toISOString();
    const day = 86400000;
    if (step >= day)
        return iso.slice(0, 10);
    if (step * steps > day)
        return iso.slice(5, 16).replace('T', ' ');
    return step < 60000 ? iso.slice(11, 19) : iso.slice(11, 16);
}

function spanText(seconds) {
    for (const [unit, size] of [['day', 86400], ['hour', 3600], ['minute', 60]]) {
        if (seconds >= size)
            return count(Math.round(seconds / size), unit);
    }
    return count(seconds, 'second');
}

function sum(numbers) {
    return numbers.reduce((total, each) => total + each, 0);
}

function number(value) {
    return value.toLocaleString('en');
}

function count(value, unit) {
    return `${number(value)} ${unit}${value === 1 ? '' : 's'}`;
}

// --- The page

const operations = ['update-check', 'download', 'plans', 'start', 'resume', 'capture', 'usage',
                    'approval', 'other'];
byId('operation').append(...operations.map((name) => html('option', {}, name)));
byId('address').textContent = location.origin;
for (const place of document.querySelectorAll('.address'))
    place.textContent = location.origin;

byId('pause').addEventListener('click', pause);
byId('filter').addEventListener('input', filterRequests);
byId('operation').addEventListener('change', filterRequests);
byId('clear').addEventListener('click', clearView);
byId('requests-rows').addEventListener('click', (event) => openExchange(event.target.closest('tr')));
byId('requests-rows').addEventListener('keydown', onRequestKey);
byId('requests-rows').addEventListener('focusin', onRequestFocus);
byId('exchange').addEventListener('close', () => { shownExchange = 0; });
byId('clear-faults').addEventListener('click', () => order('No fault is in force.', 'faults',
                                                           'DELETE'));
byId('span').addEventListener('change', look);
byId('ask-reset').addEventListener('click', () => byId('confirm-reset').showModal());
byId('reset').addEventListener('click', () => order('Everything is as it was at the start.',
                                                    'reset', 'POST', {}));
new ResizeObserver(() => usage?.counts.length && drawUsage()).observe(byId('usage'));
follow();
