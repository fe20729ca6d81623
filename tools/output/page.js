'use strict';

(async () => {
    const make = (name, properties = {}, ...children) => {
        const element = document.createElement(name);
        for (const [key, value] of Object.entries(properties)) {
            if (key in element) {
                element[key] = value;
            } else {
                element.setAttribute(key, value);
            }
        }
        element.append(...children);
        return element;
    };

    // The table of frames: sorted by a click on a column's head, filtered by what is typed.
    const table = document.getElementById('list');
    const body = table.tBodies[0];
    const heads = [...table.tHead.rows[0].cells];
    heads.forEach((head, column) => {
        const sort = () => {
            const isDown = head.getAttribute('aria-sort') === 'ascending';
            heads.forEach((other) => other.removeAttribute('aria-sort'));
            head.setAttribute('aria-sort', isDown ? 'descending' : 'ascending');
            const text = (row) => row.cells[column].textContent;
            const compare = new Intl.Collator(undefined, { numeric: true }).compare;
            // "12.345 s" and "150–181" go by their first number, "a.log:17" as text.
            const number = (row) => (/^-?\d/.test(text(row)) ? parseFloat(text(row)) : NaN);
            const rows = [...body.rows].sort((a, b) => {
                const difference = number(a) - number(b);
                return Number.isNaN(difference) ? compare(text(a), text(b)) : difference;
            });
            body.append(...(isDown ? rows.reverse() : rows));
        };
        head.replaceChildren(make('button', {
            type: 'button', textContent: head.textContent, onclick: sort }));
    });
    if (body.rows.length > 1) {
        const input = make('input', { type: 'search' });
        const shown = make('span', { role: 'status' });
        input.addEventListener('input', () => {
            const wanted = input.value.trim().toLowerCase();
            let count = 0;
            for (const row of body.rows) {
                // Cell by cell: "150" is not found in a row of 1 and 50, but in one of 100–200.
                row.hidden = ![...row.cells].some((cell) => {
                    const [first, last] = cell.textContent.split('–').map(Number);
                    return /^\d+$/.test(wanted) && last !== undefined
                        ? first <= Number(wanted) && Number(wanted) <= last
                        : cell.textContent.toLowerCase().includes(wanted);
                });
                count += row.hidden ? 0 : 1;
            }
            shown.textContent = `${count} of ${body.rows.length}`;
        });
        table.parentNode.before(
            make('label', { className: 'filter' }, 'Only rows with ', input, ' ', shown));
    }

    // The timeline: the frames of a scene, drawn on canvases when they are looked at.
    const section = document.getElementById('timeline');
    if (!section) {
        return;
    }
    const scenes = JSON.parse(document.getElementById('data').textContent);
    const seconds = (time, digits = 3) => `${time.toFixed(digits)} s`;
    const ms = (time) => `${(time * 1000).toFixed(3).replace(/\.?0+$/, '')} ms`;
    const clamp = (value, low, high) => Math.min(Math.max(value, low), high);
    // The first place in [low, high) from which on it is true.
    const search = (low, high, isTrue) => {
        while (low < high) {
            const middle = (low + high) >> 1;
            if (isTrue(middle)) {
                high = middle;
            } else {
                low = middle + 1;
            }
        }
        return low;
    };
    const range = (count) => Uint32Array.from({ length: count }, (_, i) => i);
    // Lets the browser answer between parts of what takes long.
    const pause = () => new Promise((resolve) => setTimeout(resolve));

    // ---- Data ----

    // Steps from one known time to the next, of all columns of a row before those of the next row.
    function columnsOf(steps, columns, unit) {
        let known = 0;
        const times = steps.map((step) => step === null ? NaN : (known += step) * unit);
        return Array.from({ length: columns }, (_, column) =>
            Float64Array.from({ length: times.length / columns }, (_, i) => times[i * columns + column]));
    }

    async function unpack(scene) {
        const bytes = Uint8Array.from(atob(scene.data), (letter) => letter.charCodeAt(0));
        const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('gzip'));
        const data = await new Response(stream).json();
        const stages = scene.stages.length;
        const columns = columnsOf(data.times, 2 * stages + 2, scene.unit);
        const begun = columns.slice(1, stages + 1);
        const left = columns.slice(stages + 1, 2 * stages + 1);
        // What a thread did when it did not sleep: from when to when, and which state on which CPU.
        const threads = data.threads.map(({ times, ...thread }) => {
            const [begin, end] = columnsOf(times, 2, 1e-6);
            return { ...thread, begin, end };
        });
        const numbers = scene.numbers.flatMap(([first, length]) =>
            Array.from({ length }, (_, i) => BigInt(first) + BigInt(i)));
        return derive({
            ...scene, numbers, codes: data.codes, start: columns[0], begun, left, end: columns.at(-1), threads,
        });
    }

    const PARTS = 200;  // Of a scene, for each of which the overview shows how long stages took.

    // What follows from the times: when frames came to stages, which came out when, how many were in
    // flight.
    async function derive(scene) {
        const { left, start, end, codes } = scene;
        scene.stop = Math.max(scene.stop, scene.period);  // A replay may take no time.
        const count = codes.length;
        const stages = left.length;
        const isKnown = (time) => !isNaN(time);
        // Most are in order, and to sort an hour's takes long.
        const sorted = (times) => {
            const all = range(count).filter((i) => isKnown(times[i]));
            return all.every((i, k) => k === 0 || times[all[k - 1]] <= times[i]) ? all
                : all.sort((a, b) => times[a] - times[b]);
        };
        const unknown = () => left.map(() => new Float64Array(count).fill(NaN));
        scene.order = left.map(sorted);
        scene.came = unknown();
        scene.until = unknown();
        scene.stands = left.map(() => []);  // Frames that are not known to have left.
        await pause();
        for (let i = 0; i < count; ++i) {
            let last = start[i];
            let through = -1;
            for (let stage = 0; stage < stages; ++stage) {
                // The sensor has no queue: it delivers one frame after the other.
                const begun = scene.begun[stage];
                begun[i] = isNaN(begun[i]) ? last : begun[i];
                scene.came[stage][i] = stage === 0 ? begun[i] : last;
                if (!isNaN(left[stage][i])) {
                    last = left[stage][i];
                    through = stage;
                }
            }
            const next = through + 1;
            if (next < stages && !isNaN(last) && (codes[i] & 32)) {
                scene.stands[next].push(i);
            }
        }
        scene.drift = [];
        for (let stage = 0; stage < stages; ++stage) {
            await pause();
            const order = scene.order[stage];
            for (const i of scene.stands[stage]) {
                const came = scene.came[stage][i];
                const place = search(0, order.length, (k) => left[stage][order[k]] > came);
                let passed = place;
                while (passed < order.length && order[passed] < i) {
                    ++passed;
                }
                const over = isNaN(end[i]) ? scene.stop : Math.max(end[i], came);
                scene.until[stage][i] = passed < order.length ? left[stage][order[passed]] : over;
            }
            scene.drift.push(driftOf(scene, stage));
        }
        const high = Float64Array.from(scene.drift.flat(), ([, high]) => high).filter(isKnown).sort();
        scene.top = high[Math.floor(high.length * 0.98)] || 1;
        await pause();
        const last = scene.order.findLastIndex((order) => order.length > 0);
        scene.out = left[last] ?? end;
        scene.outputs = scene.order[last] ?? sorted(end);
        scene.late = range(scene.outputs.length).filter((k) => k > 0 && codes[scene.outputs[k]] & 16);
        const starts = start.filter(isKnown).sort();
        const overs = Float64Array.from(range(count).filter((i) => isKnown(start[i])), (i) => {
            const over = Math.max(...[scene.out[i], end[i]].filter(isKnown));
            return over < 0 ? scene.stop : Math.max(over, start[i]);
        }).sort();
        const times = new Float64Array(starts.length * 2);
        const counts = new Int32Array(times.length);
        for (let k = 0, begun = 0, over = 0; k < times.length; ++k) {
            const isOver = begun === starts.length || overs[over] <= starts[begun];
            times[k] = isOver ? overs[over++] : starts[begun++];
            counts[k] = begun - over;
        }
        scene.flight = { times, counts, most: counts.reduce((a, b) => Math.max(a, b), 1) };
        return scene;
    }

    // The median and the 95th percentile of how long frames were in a stage, in each part of the
    // scene; NaN where none left it.
    function driftOf(scene, stage) {
        const order = scene.order[stage];
        const left = scene.left[stage];
        const came = scene.came[stage];
        let first = 0;
        return Array.from({ length: PARTS }, (_, part) => {
            const to = (scene.stop * (part + 1)) / PARTS;
            const next = part + 1 === PARTS ? order.length
                : search(first, order.length, (k) => left[order[k]] >= to);
            const stays = Float64Array.from(order.subarray(first, next), (i) => left[i] - came[i])
                .filter((stay) => !isNaN(stay)).sort();
            first = next;
            return [0.5, 0.95].map((share) =>
                stays[Math.max(Math.ceil(share * stays.length) - 1, 0)] ?? NaN);
        });
    }

    // ---- What is looked at ----

    let scene = null;
    let view = { from: 0, to: 1 };
    let chosen = -1;  // A frame that is followed.
    let span = null;  // That is measured.
    let isMeasuring = false;
    let visited = null;  // The finding that was gone to, while it is looked at.
    const findings = [...document.querySelectorAll('li[data-scene][data-time]')].map((item) => ({
        scene: Number(item.dataset.scene) + 1,
        time: Number(item.dataset.time),
        severity: item.classList[0],
        item,
        words: item.querySelector('bdi').textContent.trim(),
    }));
    const marks = () => findings.filter((finding) => finding.scene === scene.scene);

    const keys = {};  // What they do.
    const button = (text, key, title, act) => {
        keys[key] = act;
        return make('button', { type: 'button', textContent: text, title: `${title} (${key})`,
            'aria-keyshortcuts': key, onclick: act });
    };
    const picker = make('select', { id: 'scene' }, ...scenes.map(
        ({ title }, i) => make('option', { value: i, textContent: title })));
    const finder = make('input', { type: 'search', id: 'frame', inputMode: 'numeric', size: 8 });
    const measurer = button('Measure', 'm', 'Measure between two points: drag', () => measure());
    const status = make('p', { className: 'status', role: 'status' });
    const controls = make('div', { className: 'controls', role: 'toolbar', 'aria-label': 'Timeline' },
        ...(scenes.length > 1 ? [make('label', {}, 'Scene ', picker)] : []),
        make('label', {}, 'Find frame ', finder),
        button('◀', 'ArrowLeft', 'Earlier', () => pan(-0.5)),
        button('▶', 'ArrowRight', 'Later', () => pan(0.5)),
        button('+', '+', 'Zoom in', () => zoom(0.5)),
        button('−', '-', 'Zoom out', () => zoom(2)),
        button('All', 'Home', 'The whole scene', () => look(0, scene.stop)),
        button('Previous finding', 'p', 'Previous finding', () => jump(-1)),
        button('Next finding', 'n', 'Next finding', () => jump(1)),
        measurer);
    const overview = make('canvas', { className: 'overview', tabIndex: 0, role: 'application',
        'aria-label': 'Overview of the scene; the arrow keys move what is shown below' });
    const canvas = make('canvas', { className: 'frames', tabIndex: 0, role: 'application',
        'aria-label': 'Frames in stages over time; arrow keys move, plus and minus zoom, n and p go ' +
            'to findings, comma and full stop to frames; the table of frames has the same in words' });
    // The status says the same.
    const tip = make('div', { className: 'tip', hidden: true, 'aria-hidden': 'true' });
    const board = make('div', { className: 'board' }, overview, canvas, tip);
    const legend = make('ul', { className: 'legend' });
    section.append(
        make('p', {}, 'A frame passes the stages from top to bottom; a bar is the time that it took ' +
            'in one. A bar longer than its neighbours, or a gap, is where to look. ',
            make('a', { href: '#words-list', textContent: 'What the words mean' })),
        make('p', { className: 'use' }, 'Point at anything to read what it is; click on a frame to ' +
            'follow it; drag to move; Ctrl and the wheel zoom.'),
        controls, board, status, legend);

    // ---- Drawing ----

    // Asked of the browser once a drawing, as asking for each frame would take seconds.
    let gutter = 0;  // For the names of rows.
    let breadth = 0;
    let palette = {};
    let isPaper = false;
    const AXIS = 20;
    const ROW = 34;
    const styles = getComputedStyle(document.documentElement);
    const color = (name) => (palette[name] ??= styles.getPropertyValue(`--${name}`).trim());
    const rowsOf = () => [
        { name: 'findings', kind: 'findings', height: 24, draw: (pen, y) => drawMarks(pen, xOf, y + 1) },
        { name: 'output', kind: 'output', height: ROW, draw: drawOutput },
        { name: 'in flight', kind: 'flight', height: ROW, draw: drawFlight },
        ...scene.stages.flatMap((name, stage) => [
            { name: `${stage} ${name}`, kind: 'stage', stage, height: ROW,
                draw: (pen, y, height) => drawStage(pen, stage, y, height) },
            ...threadRows(stage),
        ]),
        ...threadRows(-1),
    ];
    const THREAD = 20;
    const threadRows = (stage) => scene.threads.filter((thread) => thread.stage === stage).map(
        (thread) => ({ name: `${thread.id} ${thread.name}`, kind: 'thread', thread, height: THREAD,
            draw: (pen, y, height) => drawThread(pen, thread, y, height) }));
    let places = [];  // Rows with their tops.

    function prepare(element, height) {
        const ratio = isPaper ? 4 : window.devicePixelRatio || 1;
        element.style.height = `${height}px`;
        element.width = Math.round(breadth * ratio);
        element.height = Math.round(height * ratio);
        const pen = element.getContext('2d');
        pen.setTransform(ratio, 0, 0, ratio, 0, 0);
        pen.rect(0, 0, breadth, height);
        pen.clip();  // Paper does not end where the canvas does.
        pen.font = '12px system-ui, sans-serif';
        pen.textBaseline = 'middle';
        return pen;
    }

    const fill = (pen, name, ...boxes) => {
        pen.fillStyle = color(name);
        boxes.forEach((box) => pen.fillRect(...box));
    };
    const outline = (pen, name, thick, ...box) => {
        pen.strokeStyle = color(name);
        pen.lineWidth = thick;
        pen.strokeRect(...box);
    };
    // A shape of the drawing, from one place to another: also drawn in the legend.
    const shapes = {
        work: (pen, x, y, w, h) => fill(pen, 'work', [x, y, w, h - 6]),
        // Below those at work meanwhile.
        wait: (pen, x, y, w, h) => fill(pen, 'work', [x, y + h - 4, w, 4]),
        since: (pen, x, y, w, h) => w > 3 ? outline(pen, 'bars', 1, x + 0.5, y + 0.5, w - 1, h - 7)
            : fill(pen, 'bars', [x, y, w, h - 6]),
        // With a cross where it ends.
        stands: (pen, x, y, w, h, isOver = true) => {
            for (let dash = x; dash < x + w; dash += 6) {
                fill(pen, 'bad', [dash, y + h / 2 - 2, Math.min(4, x + w - dash), 4]);
            }
            if (!isOver) {
                return;
            }
            pen.lineWidth = 2;
            pen.strokeStyle = color('bad');
            pen.stroke(new Path2D(`M${x + w - 4} ${y + h / 2 - 5}l8 10m-8 0l8 -10`));
        },
        output: (pen, x, y, w, h) => fill(pen, 'work', [x + w - 2, y + h / 2, 2, h / 2]),
        late: (pen, x, y, w, h) => fill(pen, 'bad', [x, y + h / 2, w, 3], [x + w - 3, y, 3, h]),
        due: (pen, x, y, w, h) => fill(pen, 'quiet', [x + w - 1, y, 1, h / 2 - 2]),
        flight: (pen, x, y, w, h) => fill(pen, 'quiet', [x, y, w, h]),
        error: (pen, x, y, w, h) => mark(pen, x + w / 2, y + h / 2, 'bad', 3),
        warning: (pen, x, y, w, h) => mark(pen, x + w / 2, y + h / 2, 'doubtful', 4),
        note: (pen, x, y, w, h) => mark(pen, x + w / 2, y + h / 2, 'quiet', 24),
        running: (pen, x, y, w, h) => fill(pen, 'fine', [x, y, w, h]),
        runnable: (pen, x, y, w, h) => fill(pen, 'bad', [x, y, w, h]),
        blocked: (pen, x, y, w, h) => fill(pen, 'doubtful', [x, y, w, h]),
        stopped: (pen, x, y, w, h) => fill(pen, 'quiet', [x, y, w, h]),
        // From the one that wakes to the one that is woken.
        wake: (pen, x, y, w, h) => arrow(pen, x + w / 2, y, y + h),
        median: (pen, x, y, w, h) => fill(pen, 'work', [x, y + h / 2, w, 2]),
        high: (pen, x, y, w, h) => fill(pen, 'doubtful', [x, y + h / 2, w, 2]),
        chosen: (pen, x, y, w, h) => outline(pen, 'ink', 2, x - 1, y - 1, Math.max(w, 2) + 2, h + 2),
        shade: (pen, x, y, w, h) => {
            fill(pen, 'shade', [x, y, w, h]);
            fill(pen, 'link', [x - 1, y, 2, h], [x + w - 1, y, 2, h]);
        },
        span: (pen, x, y, w, h) =>
            fill(pen, 'ink', [x, y, 1, h], [x + w, y, 1, h], [x, y + h / 2, w, 1]),
    };
    function arrow(pen, x, from, to) {
        pen.strokeStyle = color('ink');
        pen.lineWidth = 1.5;
        const back = to > from ? -5 : 5;
        pen.stroke(new Path2D(`M${x} ${from}V${to}m-3 ${back}l3 ${-back}l3 ${back}`));
    }
    // A polygon of so many corners: errors, warnings and notes differ in shape, too.
    function mark(pen, x, y, name, corners) {
        pen.fillStyle = color(name);
        pen.beginPath();
        for (let i = 0; i < corners; ++i) {
            const angle = (i / corners) * 2 * Math.PI - Math.PI / 2;
            pen.lineTo(x + 6 * Math.cos(angle), y + 6 * Math.sin(angle));
        }
        pen.fill();
    }

    function axis(pen, from, to, height) {
        const least = ((to - from) * 90) / (breadth - gutter);
        const power = 10 ** Math.floor(Math.log10(least));
        const step = [1, 2, 5, 10].map((times) => times * power).find((one) => one >= least);
        const digits = Math.max(3, Math.ceil(-Math.log10(step)));
        pen.textAlign = 'center';
        for (let tick = Math.ceil(from / step) * step; tick <= to; tick += step) {
            const x = gutter + ((tick - from) / (to - from)) * (breadth - gutter);
            fill(pen, 'rule', [x, AXIS - 5, 1, height - AXIS + 5]);
            if (x < breadth - 30) {
                pen.fillStyle = color('ink');
                pen.fillText(seconds(Math.max(tick, 0), digits), Math.max(x, gutter + 28), AXIS / 2 - 2);
            }
        }
    }

    const timeAt = (x) => view.from + ((x - gutter) / (breadth - gutter)) *
        (view.to - view.from);
    const xOf = (time) => gutter + ((time - view.from) / (view.to - view.from)) *
        (breadth - gutter);

    function label(pen, text, y) {
        pen.textAlign = 'left';
        pen.fillStyle = color('ink');
        let shown = text;
        while (shown.length > 1 && pen.measureText(shown).width > gutter - 8) {
            shown = `${shown.slice(0, -2)}…`;
        }
        pen.fillText(shown, 0, y);
    }

    function drawMarks(pen, placeOf, y) {
        for (const { time, severity } of marks()) {
            const x = placeOf(time);
            if (x >= gutter && x <= breadth) {
                shapes[severity](pen, x - 6, y, 12, 12);
            }
        }
    }

    function drawStage(pen, stage, y, height) {
        const order = scene.order[stage];
        const left = scene.left[stage];
        const came = scene.came[stage];
        const begun = scene.begun[stage];
        const work = stage === 0 ? 'since' : 'work';
        for (let k = search(0, order.length, (i) => left[order[i]] >= view.from);
            k < order.length; ++k) {
            const i = order[k];
            const x = xOf(isNaN(came[i]) ? left[i] : came[i]);
            // Frames come one after another: what comes later than this begins later still.
            if (x > breadth && left[i] > view.to + 60) {
                break;
            }
            const to = xOf(left[i]);
            if (x > breadth) {
                continue;
            }
            const middle = isNaN(begun[i]) ? to : xOf(begun[i]);
            const from = Math.max(x, gutter);
            if (middle - from > 0.5) {
                shapes.wait(pen, from, y, middle - from, height);
            }
            const at = Math.max(middle, gutter);
            shapes[work](pen, at, y, Math.max(to - at - (to - at > 3 ? 1 : 0), 1), height);
            if (to - at > 34) {
                pen.textAlign = 'center';
                pen.fillStyle = color(work === 'work' ? 'paper' : 'ink');
                pen.fillText(String(scene.numbers[i]), (at + to) / 2, y + height / 2 - 2);
            }
            // Of those that leave within a pixel one is drawn: the others take less than that.
            const next = timeAt(to + 1);
            k = search(k + 1, order.length, (other) => left[order[other]] >= next) - 1;
        }
        for (const i of scene.stands[stage]) {
            const from = xOf(came[i]);
            const to = xOf(scene.until[stage][i]);
            if (to > gutter && from < breadth) {
                const at = Math.max(from, gutter);
                const isOver = to < breadth + 5;
                shapes.stands(pen, at, y, (isOver ? Math.min(to, breadth - 5) : breadth) - at, height,
                    isOver);
            }
        }
    }

    const STATES = ['running', 'runnable', null, 'blocked', 'stopped'];

    // What is shorter than a pixel shares it with what else is there, by how long each takes.
    function drawThread(pen, { begin, end, codes }, y, height) {
        const pixel = timeAt(1) - timeAt(0);
        const shares = new Map();
        for (let k = search(0, end.length, (i) => end[i] >= view.from);
            k < end.length && begin[k] <= view.to; ++k) {
            const state = STATES[codes[k] & 7];
            const x = Math.max(xOf(begin[k]), gutter);
            const width = Math.min(xOf(end[k]), breadth) - x;
            if (width >= 1) {
                shapes[state](pen, x, y, width, height);
                continue;
            }
            const at = Math.floor(x);
            const share = shares.get(at) ?? {};
            share[state] = (share[state] ?? 0) + (end[k] - begin[k]) / pixel;
            shares.set(at, share);
        }
        for (const [x, share] of shares) {
            let top = y + height;
            for (const state of ['running', 'stopped', 'blocked', 'runnable']) {
                const high = share[state] ? Math.max(share[state] * height, 2) : 0;
                top = Math.max(top - high, y);
                shapes[state](pen, x, top, 1, high);
            }
        }
    }

    function drawWakes(pen) {
        const middleOf = (id) => {
            const row = places.find((place) => place.thread?.id === id);
            return row && row.y + row.height / 2;
        };
        for (const { time, from, to } of scene.wakes) {
            const [a, b] = [middleOf(from), middleOf(to)];
            if (a && b && time >= view.from && time <= view.to) {
                arrow(pen, xOf(time), a, b);
            }
        }
    }

    function drawOutput(pen, y, height) {
        const { outputs, out, late, period } = scene;
        const timeOf = (k) => out[outputs[k]];
        const showsDue = xOf(period) - xOf(0) > 4;
        for (let k = search(0, outputs.length, (i) => timeOf(i) >= view.from);
            k < outputs.length && timeOf(k) <= view.to; ++k) {
            const x = xOf(timeOf(k));
            if (!(scene.codes[outputs[k]] & 16)) {
                shapes.output(pen, x - 2, y, 2, height);
            }
            const due = k > 0 ? xOf(timeOf(k - 1) + period) : -1;
            if (showsDue && due > gutter && due < breadth) {
                shapes.due(pen, due - 1, y, 1, height);
            }
            const next = timeAt(x + 1);
            k = search(k + 1, outputs.length, (i) => timeOf(i) >= next) - 1;
        }
        for (let l = search(0, late.length, (i) => timeOf(late[i]) >= view.from);
            l < late.length && timeOf(late[l] - 1) <= view.to; ++l) {
            const x = xOf(timeOf(late[l]));
            const from = Math.max(xOf(timeOf(late[l] - 1)), gutter);
            shapes.late(pen, from, y, Math.min(x, breadth + 3) - from, height);
        }
    }

    function drawFlight(pen, y, height) {
        const { times, counts, most } = scene.flight;
        let k = search(0, times.length, (i) => times[i] > view.from) - 1;
        for (let x = gutter; x < breadth; ++x) {
            let peak = counts[k] ?? 0;
            for (const to = timeAt(x + 1); times[k + 1] < to; ++k) {
                peak = Math.max(peak, counts[k + 1]);
            }
            const h = (peak / most) * height;
            shapes.flight(pen, x, y + height - h, 1, h);
        }
    }

    function draw() {
        palette = {};
        breadth = board.clientWidth;
        gutter = Math.round(Math.min(150, breadth * 0.3));
        const rows = rowsOf();
        const height = rows.reduce((sum, row) => sum + row.height, AXIS);
        const pen = prepare(canvas, height);
        axis(pen, view.from, view.to, height);
        places = [];
        let y = AXIS;
        for (const row of rows) {
            places.push({ ...row, y });
            fill(pen, 'rule', [0, y + row.height - 1, breadth, 1]);
            label(pen, row.name, y + row.height / 2);
            row.draw(pen, y + 5, row.height - (row.kind === 'thread' ? 8 : 10));
            y += row.height;
        }
        drawWakes(pen);
        for (const { stage, y: top } of chosen < 0 ? [] : places.filter((row) => row.kind === 'stage')) {
            const left = scene.left[stage][chosen];
            const came = scene.came[stage][chosen];
            const to = isNaN(left) ? scene.until[stage][chosen] : left;
            const from = isNaN(came) ? left : came;
            if (!isNaN(to) && xOf(to) >= gutter && xOf(from) <= breadth) {
                const at = Math.max(xOf(from), gutter);
                shapes.chosen(pen, at, top + 5, xOf(to) - at, ROW - 10);
            }
        }
        if (span) {
            const [a, b] = span.map(xOf).sort((one, other) => one - other);
            shapes.span(pen, a, AXIS, b - a, height - AXIS);
            pen.textAlign = 'center';
            pen.fillText(ms(Math.abs(span[1] - span[0])), (a + b) / 2, AXIS + (height - AXIS) / 2 - 9);
        }
        drawOverview();
    }

    function drawOverview() {
        const band = 16;
        const height = AXIS + 18 + scene.stages.length * band;
        const pen = prepare(overview, height);
        const scale = (breadth - gutter) / scene.stop;
        const x = (time) => gutter + time * scale;
        axis(pen, 0, scene.stop, height);
        shapes.shade(pen, x(view.from), AXIS, Math.max((view.to - view.from) * scale, 2), height);
        label(pen, 'findings', AXIS + 9);
        drawMarks(pen, x, AXIS + 3);
        const step = (breadth - gutter) / PARTS;
        scene.drift.forEach((parts, stage) => {
            const y = AXIS + 18 + stage * band;
            label(pen, `${stage} ${scene.stages[stage]}`, y + band / 2);
            const level = (value) =>
                y + Math.round((1 - Math.min(value / scene.top, 1)) * (band - 4));
            parts.forEach(([median, high], part) => {
                if (!isNaN(median)) {
                    shapes.high(pen, gutter + part * step, level(high), step, 2);
                    shapes.median(pen, gutter + part * step, level(median), step, 2);
                }
            });
        });
    }

    let isDue = false;
    function redraw() {
        if (!isDue) {
            isDue = true;
            requestAnimationFrame(() => {
                isDue = false;
                draw();
            });
        }
    }

    // ---- What is where ----

    // What the log's clock showed: a date, which may lack its year, with a time; or seconds. Scene
    // time goes on where the clock was set.
    function logged(time) {
        const passed = scene.steps.reduce((sum, [at, step]) => sum + (at <= time ? step : 0),
            scene.begin + time);
        const [, year, day] = /^(\d{4}-)?(\d\d-\d\d .*)$/.exec(scene.clock) ?? [];
        if (day === undefined) {
            return scene.clock && seconds(Number(scene.clock) + passed);
        }
        const made = year ?? (day.startsWith('02-29') ? '2000-' : '2001-');
        const date = new Date(Date.parse(`${made}${day.replace(' ', 'T')}Z`) + passed * 1000);
        return date.toISOString().slice(year ? 0 : 5, -1).replace('T', ' ');
    }
    const wordsOf = (i) => {
        const code = scene.codes[i];
        return [scene.words[code & 15], ...(code & 16 ? ['late'] : []),
            ...(code & 32 ? ['never out'] : []), ...(code & 64 ? ['lines missing'] : [])].join(', ');
    };

    function at(x, y) {
        const row = places.find((place) => y >= place.y && y < place.y + place.height);
        if (!row || x < gutter) {
            return null;
        }
        const time = timeAt(x);
        const near = (5 / (breadth - gutter)) * (view.to - view.from);
        if (row.kind === 'findings') {
            const close = marks().filter((one) => Math.abs(one.time - time) <= near * 1.6)
                .sort((a, b) => Math.abs(a.time - time) - Math.abs(b.time - time))[0];
            return close && { kind: 'finding', time: close.time, finding: close, text: close.words };
        }
        if (row.kind === 'flight') {
            const { times, counts } = scene.flight;
            const count = counts[search(0, times.length, (i) => times[i] > time) - 1] ?? 0;
            return { kind: 'flight', time, count, text: `${count} frames in flight` };
        }
        if (row.kind === 'output') {
            const { outputs, out, codes } = scene;
            let k = search(0, outputs.length, (i) => out[outputs[i]] >= time);
            const isLate = k < outputs.length && codes[outputs[k]] & 16;
            if (!isLate && k > 0 && (k === outputs.length ||
                time - out[outputs[k - 1]] < out[outputs[k]] - time)) {
                --k;
            }
            const i = outputs[k];
            if (i === undefined || (!isLate && Math.abs(out[i] - time) > near)) {
                return null;
            }
            const interval = k > 0 ? `, ${ms(out[i] - out[outputs[k - 1]])} after the one before` : '';
            return { kind: 'output', frame: i, time: out[i],
                text: `frame ${scene.numbers[i]} came out${interval}` };
        }
        if (row.kind === 'thread') {
            const { id, name, begin, end, codes } = row.thread;
            const k = search(0, end.length, (i) => end[i] >= time);
            const isThere = k < end.length && begin[k] <= time + near / 5;
            const state = isThere ? STATES[codes[k] & 7] : 'asleep, or not known';
            const cpu = isThere ? (codes[k] >> 3) - 1 : -1;
            const length = isThere ? ` for ${ms(end[k] - begin[k])}` : '';
            const what = { running: `ran${length} on CPU ${cpu}`,
                runnable: `waited${length} for a CPU${cpu < 0 ? '' : `, CPU ${cpu}`}`,
                blocked: `blocked in the kernel${length}`, stopped: `stopped${length}` }[state] ?? state;
            return { kind: 'thread', thread: id, state, time, text: `thread ${id} (${name}): ${what}` };
        }
        const { stage } = row;
        const order = scene.order[stage];
        const left = scene.left[stage];
        const begun = scene.begun[stage];
        const describe = (i, what) => ({ kind: 'stage', stage, frame: i, what, time,
            text: `frame ${scene.numbers[i]}, stage ${stage} (${scene.stages[stage]}): ${what}` });
        // Those that wait are drawn below the one at work, of those that came a while later none.
        const first = search(0, order.length, (k) => left[order[k]] >= time);
        const there = [...order.subarray(first, first + 100)].filter(
            (i) => scene.came[stage][i] <= time);
        const waits = there.find((i) => begun[i] > time);
        const works = there.find((i) => begun[i] <= time);
        if (waits !== undefined && (works === undefined || y >= row.y + row.height - 9)) {
            return describe(waits, `waiting for ${ms(begun[waits] - scene.came[stage][waits])}`);
        }
        if (works !== undefined) {
            const took = ms(left[works] - begun[works]);
            return describe(works, stage === 0 ? `${took} since the frame before` : `at work for ${took}`);
        }
        const standing = scene.stands[stage].find(
            (i) => scene.came[stage][i] <= time && time <= scene.until[stage][i] + near);
        return standing === undefined ? null : describe(standing, 'never seen to leave');
    }

    function show(hit, x, y) {
        tip.hidden = !hit;
        if (!hit) {
            return;
        }
        const clock = logged(hit.time);
        const lines = [hit.text, ...(hit.frame === undefined ? [] : [wordsOf(hit.frame)]),
            `${seconds(hit.time)} into the scene${clock && `, ${clock} in the log`}`];
        tip.replaceChildren(...lines.map((text) => make('div', {}, make('bdi', {}, text))));
        tip.style.left = `${clamp(x + 12, 0, Math.max(breadth - tip.offsetWidth, 0))}px`;
        tip.style.top = `${canvas.offsetTop + y + 16}px`;
    }

    // ---- Moving ----

    const say = (text) => { status.textContent = text; };

    function look(from, to) {
        const length = clamp(to - from, 1e-4, scene.stop);
        view.from = clamp(from, 0, scene.stop - length);
        view.to = view.from + length;
        visited = null;
        redraw();
        remember();
    }
    const pan = (share) => look(view.from + share * (view.to - view.from),
        view.to + share * (view.to - view.from));
    const zoom = (factor, around = (view.from + view.to) / 2) =>
        look(around - (around - view.from) * factor, around + (view.to - around) * factor);

    let timer = 0;
    const address = () => `#scene=${scene.scene}&from=${view.from.toFixed(4)}` +
        `&to=${view.to.toFixed(4)}${chosen < 0 ? '' : `&frame=${scene.numbers[chosen]}`}`;
    function remember(isStep = false) {
        clearTimeout(timer);
        if (isStep) {
            history.pushState(null, '', address());
        } else {
            timer = setTimeout(() => history.replaceState(null, '', address()), 200);
        }
    }

    const momentOf = (i) => [scene.out[i], ...scene.left.map((left) => left[i]), scene.start[i],
        scene.end[i]].find((time) => !isNaN(time)) ?? 0;
    // `moves`: what is shown goes to the frame if it is elsewhere.
    function choose(i, isStep = true, moves = true) {
        chosen = i;
        if (i >= 0) {
            const time = momentOf(i);
            const stays = scene.left.map((left, stage) => isNaN(left[i]) ? `stage ${stage}: -`
                : `stage ${stage}: ${ms(left[i] - scene.came[stage][i])}`);
            say(`Frame ${scene.numbers[i]}: ${wordsOf(i)}, ${seconds(time)} into the scene; ` +
                stays.join(', '));
            if (moves && (time < view.from || time > view.to)) {
                const half = (view.to - view.from) / 2;
                look(time - half, time + half);
            }
        }
        if (isStep) {
            remember(true);
        }
        redraw();
    }

    function jump(direction) {
        const all = marks().sort((a, b) => a.time - b.time);
        const after = (time) => search(0, all.length, (k) => all[k].time > time);
        const last = all.indexOf(visited);  // Several may be at one time, or near the scene's end.
        const first = direction > 0 ? after(view.from) : after(view.to) - 1;
        const next = all[last >= 0 ? last + direction : first];
        if (!next) {
            say(`There is no ${direction > 0 ? 'later' : 'earlier'} finding in this scene.`);
            return;
        }
        const half = Math.min((view.to - view.from) / 2, 1);
        look(next.time - half, next.time + half);
        visited = next;
        say(next.words);
        remember(true);
    }

    function measure() {
        isMeasuring = !isMeasuring;
        measurer.setAttribute('aria-pressed', isMeasuring);
        span = null;
        redraw();
    }

    function find(text) {
        let number;
        try {
            number = BigInt(text.trim());
        } catch {
            say(`"${text}" is no frame number.`);
            return;
        }
        // A number that is used again is found again.
        let found = scene.numbers.indexOf(number, chosen + 1);
        found = found < 0 ? scene.numbers.indexOf(number) : found;
        if (found < 0) {
            say(`There is no frame ${number} in this scene.`);
            return;
        }
        const time = momentOf(found);
        look(time - 0.15, time + 0.15);
        choose(found);
    }

    // ---- Mouse, keys and the address ----

    let held = null;
    canvas.addEventListener('pointerdown', (event) => {
        canvas.setPointerCapture(event.pointerId);
        held = { x: event.offsetX, y: event.offsetY, from: view.from, to: view.to, isMoved: false };
        if (isMeasuring) {
            span = [timeAt(event.offsetX), timeAt(event.offsetX)];
        }
    });
    canvas.addEventListener('pointermove', (event) => {
        if (held) {
            const moved = event.offsetX - held.x;
            held.isMoved ||= Math.abs(moved) > 3;
            if (isMeasuring) {
                span[1] = timeAt(event.offsetX);
                redraw();
            } else if (held.isMoved) {
                const by = (moved / (breadth - gutter)) * (held.to - held.from);
                look(held.from - by, held.to - by);
            }
        }
        show(held?.isMoved ? null : at(event.offsetX, event.offsetY), event.offsetX, event.offsetY);
    });
    canvas.addEventListener('pointerup', (event) => {
        const isClick = held && !held.isMoved && !isMeasuring;
        if (isMeasuring && span) {
            say(`${ms(Math.abs(span[1] - span[0]))}, from ${seconds(Math.min(...span))} to ` +
                `${seconds(Math.max(...span))} into the scene.`);
        }
        held = null;
        const hit = isClick && at(event.offsetX, event.offsetY);
        if (hit?.kind === 'finding') {
            say(hit.text);
            hit.finding.item.querySelector('details')?.setAttribute('open', '');
        } else if (isClick) {
            choose(hit?.frame ?? -1, true, false);
        }
    });
    canvas.addEventListener('pointerleave', () => show(null));
    canvas.addEventListener('wheel', (event) => {
        const sideways = event.deltaX || (event.shiftKey ? event.deltaY : 0);
        if (event.ctrlKey) {
            zoom(Math.exp(event.deltaY / 300), timeAt(Math.max(event.offsetX, gutter)));
        } else if (sideways !== 0) {
            pan(sideways / breadth);
        } else {
            return;  // The page scrolls.
        }
        event.preventDefault();
    }, { passive: false });

    let brush = null;
    const overAt = (event) => clamp(((event.offsetX - gutter) /
        (breadth - gutter)) * scene.stop, 0, scene.stop);
    overview.addEventListener('pointerdown', (event) => {
        overview.setPointerCapture(event.pointerId);
        const time = overAt(event);
        const near = (6 / (breadth - gutter)) * scene.stop;
        const isNear = (edge) => Math.abs(time - edge) < near;
        const length = view.to - view.from;
        if (isNear(view.from)) {
            brush = { fixed: view.to };
        } else if (isNear(view.to)) {
            brush = { fixed: view.from };
        } else if (time > view.from && time < view.to && length < scene.stop * 0.99) {
            brush = { grip: time - view.from, length };
        } else {
            brush = { fixed: time };
        }
    });
    overview.addEventListener('pointermove', (event) => {
        if (!brush) {
            return;
        }
        const time = overAt(event);
        if (brush.fixed === undefined) {
            look(time - brush.grip, time - brush.grip + brush.length);
        } else if (time !== brush.fixed) {
            look(Math.min(time, brush.fixed), Math.max(time, brush.fixed));
        }
    });
    overview.addEventListener('pointerup', () => {
        brush = null;
        remember(true);
    });

    Object.assign(keys, {
        ArrowLeft: () => pan(-0.2), ArrowRight: () => pan(0.2), '=': () => zoom(0.5),
        '.': () => choose(Math.min(chosen + 1, scene.numbers.length - 1)),
        ',': () => choose(Math.max(chosen - 1, 0)),
    });
    section.addEventListener('keydown', (event) => {
        if (event.target.matches('input, select') || event.ctrlKey || event.altKey || event.metaKey) {
            return;
        }
        if (keys[event.key]) {
            keys[event.key]();
            event.preventDefault();
        }
    });
    document.addEventListener('keydown', (event) => {
        if (event.key === 'Escape') {
            show(null);
            span = null;
            if (isMeasuring) {
                measure();
            }
            redraw();
        }
    });
    finder.addEventListener('keydown', (event) => {
        if (event.key === 'Enter') {
            find(finder.value);
        }
    });
    picker.addEventListener('change', async () => {
        await open(Number(picker.value));
        look(0, scene.stop);
        remember(true);
    });

    const opened = new Map();
    async function open(index) {
        picker.value = index;
        const waits = opened.get(index) ?? unpack(scenes[index]);
        opened.set(index, waits);
        const next = await waits;
        if (next !== scene) {
            scene = next;
            chosen = -1;
            span = null;
            view = { from: 0, to: Math.min(scene.stop, 5) };
        }
    }

    // From the address: "#scene=1&from=1.5&to=2&frame=100"; or "#finding=3", by the numbers of the
    // page's list.
    async function go() {
        const asked = Object.fromEntries(new URLSearchParams(location.hash.slice(1)));
        const item = document.getElementById(`f${asked.finding}`);
        if (item) {
            const { scene, time, frame } = item.dataset;
            Object.assign(asked, { scene: Number(scene) + 1, frame },
                time && { from: Number(time) - 0.5, to: Number(time) + 1 });
        }
        const wanted = scenes.findIndex((one) => one.scene === Number(asked.scene));
        if (location.hash && wanted < 0) {
            return;  // A link to something else on the page.
        }
        await open(Math.max(wanted, 0));
        if (wanted < 0) {
            view = { from: 0, to: Math.min(scene.stop, 5) };
        }
        const isRange = Number(asked.to) > Number(asked.from);
        if (isRange) {
            look(clamp(Number(asked.from), 0, scene.stop), clamp(Number(asked.to), 0, scene.stop));
            visited = findings.find((one) => one.item === item) ?? null;
        }
        chosen = -1;
        if (asked.frame) {
            const found = scene.numbers.indexOf(BigInt(asked.frame.replace(/[^-\d]/g, '') || 0));
            if (found >= 0 && !isRange) {
                const time = momentOf(found);
                look(time - 0.15, time + 0.15);
            }
            choose(found, false, !isRange);
        }
        redraw();
        if (wanted >= 0 && document.activeElement?.matches('a')) {
            section.scrollIntoView({ block: 'nearest' });
        }
    }

    function drawLegend() {
        palette = {};
        const words = {
            work: 'a stage at work on a frame', wait: 'a frame waits for the stage',
            since: 'stage 0: time since the frame before', stands: 'a frame that never left the stage',
            output: 'a frame comes out', due: 'when it was due: one period after the one before',
            late: 'a frame comes out late, and the time since the one before',
            flight: 'how many frames are in flight', error: 'error', warning: 'warning', note: 'note',
            ...(scene.threads.length === 0 ? {} : {
                running: 'a thread runs', runnable: 'a thread waits for a CPU',
                blocked: 'a thread is blocked in the kernel',
                stopped: 'a thread is stopped by a signal or a debugger',
                wake: 'who woke whom, where a frame was late' }),
            chosen: 'the frame that was clicked on', span: 'measured',
            shade: 'overview: what is shown below', median: 'overview: median time of a stage',
            high: 'overview: 95th percentile, which 1 frame in 20 exceeds',
        };
        legend.replaceChildren(...Object.entries(words).map(([shape, text]) => {
            const swatch = make('canvas', { width: 128, height: 64, 'aria-hidden': 'true' });
            const pen = swatch.getContext('2d');
            pen.scale(4, 4);
            if (shape === 'output' || shape === 'due') {
                shapes[shape](pen, 4, 2, 4, 12);  // One says little.
                shapes[shape](pen, 11, 2, 4, 12);
            }
            shapes[shape](pen, 4, 2, 22, 12);
            return make('li', {}, swatch, ` ${text}`);
        }));
    }

    await open(0);
    await go();
    drawLegend();
    draw();
    addEventListener('hashchange', go);
    addEventListener('popstate', go);
    new ResizeObserver(redraw).observe(board);
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
        drawLegend();
        redraw();
    });
    // What is printed has the paper's colours and width.
    for (const name of ['beforeprint', 'afterprint']) {
        addEventListener(name, () => {
            isPaper = name === 'beforeprint';
            document.documentElement.classList.toggle('paper', isPaper);
            drawLegend();
            draw();
        });
    }
    // For programs that look at the page.
    window.timeline = {
        // What a person reads of a place: a time in a row, "output" or a stage's number for example,
        // so many pixels below the row's top. With the place on the canvas.
        at: (row, time, below) => {
            const place = places.find((one) => (one.thread?.id ?? one.stage ?? one.kind) === row);
            const hit = at(xOf(time), place.y + below);
            return { ...hit, finding: undefined, x: xOf(time), y: place.y + below,
                number: hit?.frame === undefined ? null : String(scene.numbers[hit.frame]) };
        },
    };
})();
