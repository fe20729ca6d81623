'use strict';

(async () => {
    const make = (name, properties, ...children) => {
        const element = Object.assign(document.createElement(name), properties);
        element.append(...children);
        return element;
    };

    // The table of frames: sorted by a click on a column's head, filtered by what is typed.
    const table = document.getElementById('list');
    const body = table.tBodies[0];
    const heads = [...table.tHead.rows[0].cells];
    const { compare } = new Intl.Collator(undefined, { numeric: true });
    heads.forEach((head, column) => {
        const sort = () => {
            const isDown = head.ariaSort === 'ascending';
            heads.forEach((other) => { other.ariaSort = null; });
            head.ariaSort = isDown ? 'descending' : 'ascending';
            const text = (row) => row.cells[column].textContent;
            // "12.345 s" and "150–181" go by their first number, "a.log:17" as text.
            const rows = [...body.rows].sort((a, b) =>
                parseFloat(text(a)) - parseFloat(text(b)) || compare(text(a), text(b)));
            body.append(...(isDown ? rows.reverse() : rows));
        };
        head.replaceChildren(make('button', {
            type: 'button', textContent: head.textContent, onclick: sort }));
    });
    if (body.rows.length > 1) {
        const input = make('input', { type: 'search' });
        const shown = make('span', { role: 'status' });
        input.oninput = () => {
            const wanted = input.value.trim().toLowerCase();
            // Cell by cell: "150" is not found in a row of 1 and 50, but in one of 100–200.
            const isIn = ({ textContent: text }) => {
                const [first, last] = text.split('–').map(Number);
                return text.toLowerCase().includes(wanted) || (first <= wanted && wanted <= last);
            };
            const rows = [...body.rows];
            rows.forEach((row) => { row.hidden = ![...row.cells].some(isIn); });
            shown.textContent = `${rows.filter((row) => !row.hidden).length} of ${rows.length}`;
        };
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
    // The first of ascending times, from a place on, that is not earlier than `time`.
    const firstAt = (times, time, from = 0) => {
        let low = from;
        let high = times.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (times[middle] < time) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    };

    // ---- Data ----

    // A column of numbers is packed as the steps from one that is known to the next.
    const sumsOf = (steps, unit = 1) => {
        let sum = 0;
        return Float64Array.from(steps, (step) => step === null ? NaN : (sum += step) * unit);
    };
    const timesOf = (steps) => sumsOf(steps, 1e-6);

    async function unpack({ scene, data }) {
        const bytes = Uint8Array.from(atob(data), (letter) => letter.charCodeAt(0));
        const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('gzip'));
        const { frames, ...more } = await new Response(stream).json();
        const shown = { ...more, ...frames, scene };
        const { outputs, flight } = shown;
        shown.numbers = frames.numbers.flatMap(([first, length]) =>
            Array.from({ length }, (_, i) => String(BigInt(first) + BigInt(i))));
        for (const stage of shown.stages) {
            const [left, waits, works] = [stage.left, stage.waits, stage.works].map(timesOf);
            const begun = left.map((time, k) => time - works[k]);
            const came = begun.map((time, k) => time - waits[k]);
            Object.assign(stage, { frames: sumsOf(stage.frames), came, begun, left });
        }
        shown.moments = timesOf(frames.moments);
        outputs.frames = sumsOf(outputs.frames);
        outputs.times = outputs.frames.map((i) => shown.moments[i]);
        outputs.late = new Set(outputs.late);
        flight.times = timesOf(flight.times);
        flight.most = flight.counts.reduce((most, count) => Math.max(most, count), 1);
        for (const thread of shown.threads) {
            thread.begin = timesOf(thread.begin);
            thread.end = timesOf(thread.end);
        }
        return shown;
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
            ariaKeyShortcuts: key, onclick: act });
    };
    const picker = make('select', { id: 'scene' }, ...scenes.map(
        ({ title }, i) => make('option', { value: i, textContent: title })));
    const finder = make('input', { type: 'search', id: 'frame', inputMode: 'numeric', size: 8 });
    const measurer = button('Measure', 'm', 'Measure between two points: drag', () => measure());
    const status = make('p', { className: 'status', role: 'status' });
    const controls = make('div', { className: 'controls', role: 'toolbar', ariaLabel: 'Timeline' },
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
    const drawing = (className, ariaLabel) =>
        make('canvas', { className, tabIndex: 0, role: 'application', ariaLabel });
    const overview = drawing('overview',
        'Overview of the scene; the arrow keys move what is shown below');
    const canvas = drawing('frames', 'Frames in stages over time; arrow keys move, plus and minus ' +
        'zoom, n and p go to findings, comma and full stop to frames; the table of frames has the ' +
        'same in words');
    // The status says the same.
    const tip = make('div', { className: 'tip', hidden: true, ariaHidden: 'true' });
    const board = make('div', { className: 'board' }, overview, canvas, tip);
    const legend = make('ul', { className: 'legend' });
    section.append(
        make('p', {}, 'A frame passes the stages from top to bottom; a bar is the time that it took ' +
            'in one. A bar longer than its neighbours, or a gap, is where to look. ',
            make('a', { href: '#words-list', textContent: 'What the words mean' })),
        make('p', { className: 'use' }, 'Point at anything to read what it is; click on a frame to ' +
            'follow it; drag to move; Ctrl and the wheel zoom.'),
        controls, board, status, legend);

    // ---- Shapes ----

    const styles = getComputedStyle(document.documentElement);
    // Asked of the browser once a drawing, as asking for each frame would take seconds.
    let palette = {};
    const color = (name) => (palette[name] ??= styles.getPropertyValue(`--${name}`).trim());
    const fill = (pen, name, ...boxes) => {
        pen.fillStyle = color(name);
        boxes.forEach((box) => pen.fillRect(...box));
    };
    const stroke = (pen, name, thick, path) => {
        pen.strokeStyle = color(name);
        pen.lineWidth = thick;
        pen.stroke(new Path2D(path));
    };
    const outline = (pen, name, thick, x, y, w, h) =>
        stroke(pen, name, thick, `M${x} ${y}h${w}v${h}h${-w}z`);
    const solid = (name) => (pen, ...box) => fill(pen, name, box);
    const line = (name) => (pen, x, y, w, h) => fill(pen, name, [x, y + h / 2, w, 2]);
    // A polygon of so many corners: errors, warnings and notes differ in shape, too.
    const mark = (name, corners) => (pen, x, y, w, h) => {
        const points = Array.from({ length: corners }, (_, i) => (i / corners - 0.25) * 2 * Math.PI)
            .map((angle) => [x + w / 2 + 6 * Math.cos(angle), y + h / 2 + 6 * Math.sin(angle)]);
        pen.fillStyle = color(name);
        pen.fill(new Path2D(`M${points.join('L')}z`));
    };
    const bar = (width) => Math.max(width > 3 ? width - 1 : width, 1);  // Apart from the next one.
    // All that is drawn, in a box: in the legend as well.
    const shapes = {
        work: (pen, x, y, w, h) => fill(pen, 'work', [x, y, bar(w), h - 6]),
        // Below those at work meanwhile.
        wait: (pen, x, y, w, h) => fill(pen, 'work', [x, y + h - 4, w, 4]),
        since: (pen, x, y, w, h) => bar(w) > 3
            ? outline(pen, 'bars', 1, x + 0.5, y + 0.5, bar(w) - 1, h - 7)
            : fill(pen, 'bars', [x, y, bar(w), h - 6]),
        // With a cross where it ends.
        stands: (pen, x, y, w, h) => {
            for (let dash = x; dash < x + w; dash += 6) {
                fill(pen, 'bad', [dash, y + h / 2 - 2, Math.min(4, x + w - dash), 4]);
            }
            stroke(pen, 'bad', 2, `M${x + w - 4} ${y + h / 2 - 5}l8 10m-8 0l8 -10`);
        },
        output: (pen, x, y, w, h) => fill(pen, 'work', [x + w - 2, y + h / 2, 2, h / 2]),
        late: (pen, x, y, w, h) => fill(pen, 'bad', [x, y + h / 2, w, 3], [x + w - 3, y, 3, h]),
        due: (pen, x, y, w, h) => fill(pen, 'quiet', [x + w - 1, y, 1, h / 2 - 2]),
        flight: solid('quiet'),
        error: mark('bad', 3),
        warning: mark('doubtful', 4),
        note: mark('quiet', 24),
        running: solid('fine'),
        runnable: solid('bad'),
        blocked: solid('doubtful'),
        stopped: solid('quiet'),
        // From the one that wakes to the one that is woken, which may be above it.
        wake: (pen, x, y, w, h) => {
            const back = h > 0 ? -5 : 5;
            stroke(pen, 'ink', 1.5, `M${x + w / 2} ${y}v${h}m-3 ${back}l3 ${-back}l3 ${back}`);
        },
        median: line('work'),
        high: line('doubtful'),
        chosen: (pen, x, y, w, h) => outline(pen, 'ink', 2, x - 1, y - 1, Math.max(w, 2) + 2, h + 2),
        shade: (pen, x, y, w, h) => {
            fill(pen, 'shade', [x, y, w, h]);
            fill(pen, 'link', [x - 1, y, 2, h], [x + w - 1, y, 2, h]);
        },
        span: (pen, x, y, w, h) =>
            fill(pen, 'ink', [x, y, 1, h], [x + w, y, 1, h], [x, y + h / 2, w, 1]),
    };
    // `room`: a longer text is written narrower.
    const write = (pen, name, align, text, x, y, room) => {
        pen.fillStyle = color(name);
        pen.textAlign = align;
        pen.fillText(text, x, y, room);
    };

    // ---- Charts: rows over time ----

    const AXIS = 20;
    const EDGE = 12;  // Drawn there is what is farther out of sight.
    let breadth = 0;
    let gutter = 0;  // For the names of rows.

    const scaleOf = (from, to) => ({
        from,
        to,
        time: (x) => from + ((x - gutter) / (breadth - gutter)) * (to - from),
        x: (time) => clamp(gutter + ((time - from) / (to - from)) * (breadth - gutter),
            gutter - EDGE, breadth + EDGE),
    });
    const viewed = () => scaleOf(view.from, view.to);
    const whole = () => scaleOf(0, scene.stop);

    function drawAxis(pen, { from, to, x }, height) {
        const least = ((to - from) * 90) / (breadth - gutter);
        const power = 10 ** Math.floor(Math.log10(least));
        const step = [1, 2, 5, 10].map((times) => times * power).find((one) => one >= least);
        const digits = Math.max(3, Math.ceil(-Math.log10(step)));
        for (let tick = Math.ceil(from / step) * step; tick <= to; tick += step) {
            fill(pen, 'rule', [x(tick), AXIS - 5, 1, height - AXIS + 5]);
            if (x(tick) < breadth - 30) {
                write(pen, 'ink', 'center', seconds(Math.max(tick, 0), digits),
                    Math.max(x(tick), gutter + 28), AXIS / 2 - 2);
            }
        }
    }

    // Draws rows, one below the other, before a background. Returns the pen, and the rows with their
    // tops.
    function drawChart(element, scale, rows, background = () => {}) {
        const height = rows.reduce((sum, row) => sum + row.height, AXIS);
        const isPaper = document.documentElement.classList.contains('paper');
        const ratio = isPaper ? 4 : window.devicePixelRatio;
        element.style.height = `${height}px`;
        element.width = Math.round(breadth * ratio);
        element.height = Math.round(height * ratio);
        const pen = element.getContext('2d');
        pen.setTransform(ratio, 0, 0, ratio, 0, 0);
        pen.font = '12px system-ui, sans-serif';
        pen.textBaseline = 'middle';
        drawAxis(pen, scale, height);
        let top = AXIS;
        const placed = rows.map((row) => {
            const y = top;
            top += row.height;
            fill(pen, 'rule', [0, top - 1, breadth, row.isRuled ? 1 : 0]);
            write(pen, 'ink', 'left', row.name, 0, y + row.height / 2, gutter - 8);
            return { ...row, y };
        });
        pen.rect(gutter, 0, breadth - gutter, height);
        pen.clip();
        background(pen, height);
        for (const { things, y, height: high, pad } of placed) {
            const level = (share) => y + pad + Math.round(share * (high - 2 * pad));
            for (const { shape, from, to, top: upper = 0, bottom = 1, name } of things(scale)) {
                const [left, width] = [scale.x(from), scale.x(to) - scale.x(from)];
                shapes[shape](pen, left, level(upper), width, level(bottom) - level(upper));
                if (name && width > 34) {
                    write(pen, shape === 'work' ? 'paper' : 'ink', 'center', name,
                        left + width / 2, y + high / 2 - 2);
                }
            }
        }
        return { pen, height, placed };
    }

    // The places of ascending times in sight, and so far beyond; of those within a pixel one.
    function* inSight(times, { from, to, time, x }, beyond = 0) {
        for (let k = firstAt(times, from); times[k] <= to + beyond;
            k = firstAt(times, time(x(times[k]) + 1), k + 1)) {
            yield k;
        }
    }

    // ---- Rows. Each has things: the shape of a thing, from when to when it is, from which part of
    // the row's height to which, and what is read there. ----

    const ROW = { height: 34, pad: 5, reach: 0, isRuled: true };  // Things are read so far away.

    const findingsRow = (height) => ({
        id: 'findings', name: 'findings', height, pad: (height - 12) / 2, reach: 8,
        things: () => marks().map((finding) => ({
            shape: finding.severity, from: finding.time, to: finding.time, isMoment: true, finding,
            text: () => finding.words })),
    });

    const outputRow = ({ period, numbers, outputs: { frames, times, late } }) => ({
        ...ROW, id: 'output', name: 'output', reach: 5,
        *things(scale) {
            const { from, to, x } = scale;
            const output = (k) => ({ to: times[k], isMoment: true, frame: frames[k],
                text: () => `frame ${numbers[frames[k]]} came out` +
                    (k > 0 ? `, ${ms(times[k] - times[k - 1])} after the one before` : '') });
            const showsDue = x(from + period) - x(from) > 4;
            for (const k of inSight(times, scale)) {
                if (!late.has(k)) {
                    yield { ...output(k), shape: 'output', from: times[k] };
                }
                if (showsDue && k > 0) {
                    const due = times[k - 1] + period;
                    yield { shape: 'due', from: due, to: due };
                }
            }
            for (const k of late) {
                if (times[k] >= from && times[k - 1] <= to) {
                    yield { ...output(k), shape: 'late', from: times[k - 1] };
                }
            }
        },
    });

    const flightRow = ({ flight: { times, counts, most } }) => ({
        ...ROW, id: 'flight', name: 'in flight',
        *things({ from, time }) {
            let k = firstAt(times, from) - 1;
            for (let x = gutter; x < breadth; ++x) {
                let peak = counts[k] ?? 0;
                const to = time(x + 1);
                for (; times[k + 1] < to; ++k) {
                    peak = Math.max(peak, counts[k + 1]);
                }
                yield { shape: 'flight', from: time(x), to, top: 1 - peak / most,
                    text: () => `${peak} frames in flight` };
            }
        },
    });

    const stageRow = ({ name, frames, came, begun, left, stands }, stage) => {
        const thing = (shape, frame, from, to, what) => ({ shape, frame, from, to,
            text: () => `frame ${scene.numbers[frame]}, stage ${stage} (${name}): ${what()}` });
        // From when to when the frame was in the stage; nothing where it never was.
        const stayOf = (frame) => {
            const k = frames.indexOf(frame);
            return k < 0 ? stands.find((one) => one.frame === frame)
                : { since: came[k], until: left[k], hasLeft: true };
        };
        return {
            ...ROW, id: stage, name: `${stage} ${name}`, stayOf,
            *things(scale) {
                // Frames that have come by the view's end leave within a minute.
                for (const k of inSight(left, scale, 60)) {
                    const [from, begin, to] = [came[k], begun[k], left[k]];
                    if (begin > from) {
                        yield { ...thing('wait', frames[k], from, begin,
                            () => `waiting for ${ms(begin - from)}`), isLow: true };
                    }
                    const work = () => stage === 0 ? `${ms(to - begin)} since the frame before`
                        : `at work for ${ms(to - begin)}`;
                    yield { ...thing(stage === 0 ? 'since' : 'work', frames[k],
                        isNaN(begin) ? to : begin, to, work), name: scene.numbers[frames[k]] };
                }
                for (const { frame, since, until } of stands) {
                    yield { ...thing('stands', frame, since, until,
                        () => 'never seen to leave'), reach: 5 };
                }
                const stay = stayOf(chosen);
                if (stay) {
                    yield { shape: 'chosen', to: stay.until,
                        from: isNaN(stay.since) ? stay.until : stay.since };
                }
            },
        };
    };

    const threadRow = ({ id, name, begin, end, states, cpus }) => ({
        ...ROW, id, thread: id, name: `${id} ${name}`, height: 20, pad: 4, reach: 1,
        *things({ from, to, time, x }) {
            const shares = new Map();  // Of what is shorter than a pixel, in each pixel.
            for (let k = firstAt(end, from); begin[k] <= to; ++k) {
                const [state, cpu, length] = [states[k], cpus[k], end[k] - begin[k]];
                if (x(end[k]) - x(begin[k]) < 1) {
                    const at = Math.floor(x(begin[k]));
                    const share = shares.get(at) ?? {};
                    share[state] = (share[state] ?? 0) + length / (time(1) - time(0));
                    shares.set(at, share);
                    continue;
                }
                const words = { running: `ran for ${ms(length)} on CPU ${cpu}`,
                    runnable: `waited for ${ms(length)} for a CPU${cpu < 0 ? '' : `, CPU ${cpu}`}`,
                    blocked: `blocked in the kernel for ${ms(length)}`,
                    stopped: `stopped for ${ms(length)}` };
                yield { shape: state, state, from: begin[k], to: end[k],
                    text: () => `thread ${id} (${name}): ${words[state]}` };
            }
            for (const [at, share] of shares) {
                let bottom = 1;
                for (const state of ['running', 'stopped', 'blocked', 'runnable']) {
                    if (share[state]) {
                        const top = Math.max(bottom - Math.max(share[state], 1 / 6), 0);
                        yield { shape: state, from: time(at), to: time(at + 1), top, bottom };
                        bottom = top;
                    }
                }
            }
        },
        otherwise: { state: 'asleep, or not known',
            text: () => `thread ${id} (${name}): asleep, or not known` },
    });

    // In the overview.
    const partsRow = ({ name, parts }, stage) => ({
        name: `${stage} ${name}`, height: 16, pad: 2,
        *things() {
            const length = scene.stop / scene.parts;
            for (const { part, ...figures } of parts) {
                for (const shape of ['high', 'median']) {
                    const top = 1 - Math.min(figures[shape] / scene.top, 1);
                    yield { shape, from: part * length, to: (part + 1) * length, top, bottom: top };
                }
            }
        },
    });

    const rowsOf = (shown) => {
        const threadRows = (stage) =>
            shown.threads.filter((thread) => thread.stage === stage).map(threadRow);
        return [{ ...findingsRow(24), isRuled: true }, outputRow(shown), flightRow(shown),
            ...shown.stages.flatMap((one, stage) => [stageRow(one, stage), ...threadRows(stage)]),
            ...threadRows(-1)];
    };

    let places = [];  // Rows with their tops.

    function draw() {
        breadth = board.clientWidth;
        gutter = Math.round(Math.min(150, breadth * 0.3));
        const scale = viewed();
        const { pen, height, placed } = drawChart(canvas, scale, scene.rows);
        places = placed;
        for (const { time, from, to } of scene.wakes) {
            const [a, b] = [from, to].map((id) => places.find(({ thread }) => thread === id)?.y + 10);
            shapes.wake(pen, scale.x(time), a, 0, b - a);
        }
        if (span) {
            const [a, b] = span.map(scale.x).sort((one, other) => one - other);
            shapes.span(pen, a, AXIS, b - a, height - AXIS);
            write(pen, 'ink', 'center', ms(Math.abs(span[1] - span[0])), (a + b) / 2,
                (AXIS + height) / 2 - 9);
        }
        const { x } = whole();
        drawChart(overview, whole(), [findingsRow(18), ...scene.stages.map(partsRow)],
            (sheet, high) => shapes.shade(sheet, x(view.from), AXIS,
                Math.max(x(view.to) - x(view.from), 2), high));
    }

    let due = 0;
    function redraw() {
        cancelAnimationFrame(due);
        due = requestAnimationFrame(draw);
    }
    function repaint() {
        drawLegend();
        draw();
    }

    // ---- What is where ----

    // What the log's clock showed: a date, which may lack its year, with a time; or seconds. Scene
    // time goes on where the clock was set.
    function logged(time) {
        const { from, steps } = scene.clock;
        const passed = steps.reduce((sum, [at, step]) => sum + (at <= time ? step : 0),
            scene.begin + time);
        const [, year, day] = /^(\d{4}-)?(\d\d-\d\d .*)$/.exec(from) ?? [];
        if (day === undefined) {
            return from && seconds(Number(from) + passed);
        }
        const made = year ?? (day.startsWith('02-29') ? '2000-' : '2001-');
        const date = new Date(Date.parse(`${made}${day.replace(' ', 'T')}Z`) + passed * 1000);
        return date.toISOString().slice(year ? 0 : 5, -1).replace('T', ' ');
    }

    function at(x, y) {
        const row = places.find((place) => y >= place.y && y < place.y + place.height);
        if (!row || x < gutter) {
            return null;
        }
        const { time } = viewed();
        const now = time(x);
        const distance = ({ from, to }) => Math.max(from - now, now - to, 0);
        const pixel = time(1) - time(0);
        const hits = [...row.things(scaleOf(now - 8 * pixel, now + 8 * pixel))]
            .filter((one) => one.text && distance(one) <= (one.reach ?? row.reach) * pixel)
            .sort((a, b) => distance(a) - distance(b));
        // Frames that wait are drawn below the one at work.
        const isLow = y - row.y >= row.height - 9;
        const hit = hits.find((one) => Boolean(one.isLow) === isLow) ?? hits[0] ?? row.otherwise;
        return hit && { ...hit, time: hit.isMoment ? hit.to : now, text: hit.text() };
    }

    function show(hit, x, y) {
        tip.hidden = !hit;
        if (!hit) {
            return;
        }
        const clock = logged(hit.time);
        const lines = [hit.text, ...(hit.frame === undefined ? [] : [scene.words[hit.frame]]),
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
    const lookAround = (time, half) => look(time - half, time + half);
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

    function choose(i) {
        chosen = i;
        redraw();
        if (i >= 0) {
            const stays = scene.rows.filter((row) => row.stayOf).map(({ id, stayOf }) => {
                const { since, until, hasLeft } = stayOf(i) ?? {};
                return `stage ${id}: ${hasLeft && !isNaN(since) ? ms(until - since) : '-'}`;
            });
            say(`Frame ${scene.numbers[i]}: ${scene.words[i]}, ${seconds(scene.moments[i])} into ` +
                `the scene; ${stays.join(', ')}`);
        }
    }

    function step(by) {
        const i = clamp(chosen + by, 0, scene.numbers.length - 1);
        const time = scene.moments[i];
        if (time < view.from || time > view.to) {
            lookAround(time, (view.to - view.from) / 2);
        }
        choose(i);
        remember(true);
    }

    function jump(direction) {
        const all = marks().sort((a, b) => a.time - b.time);
        const last = all.indexOf(visited);  // Several may be at one time, or near the scene's end.
        const first = direction > 0 ? all.findIndex(({ time }) => time > view.from)
            : all.findLastIndex(({ time }) => time <= view.to);
        const next = all[last >= 0 ? last + direction : first];
        if (!next) {
            say(`There is no ${direction > 0 ? 'later' : 'earlier'} finding in this scene.`);
            return;
        }
        lookAround(next.time, Math.min((view.to - view.from) / 2, 1));
        visited = next;
        say(next.words);
        remember(true);
    }

    function measure() {
        isMeasuring = !isMeasuring;
        measurer.ariaPressed = isMeasuring;
        span = null;
        redraw();
    }

    function find(number) {
        const found = scene.numbers.indexOf(number);
        if (found < 0) {
            say(`There is no frame ${number} in this scene.`);
            return;
        }
        lookAround(scene.moments[found], 0.15);
        choose(found);
        remember(true);
    }

    // ---- Mouse, keys and the address ----

    let drag = null;  // What a move does while the mouse is pressed.
    let isMoved = false;
    canvas.onpointerdown = ({ pointerId, offsetX: begin }) => {
        canvas.setPointerCapture(pointerId);
        const { from, to, time } = viewed();
        isMoved = false;
        drag = (x) => {
            const by = time(x) - time(begin);
            isMoved ||= Math.abs(x - begin) > 3;
            if (isMeasuring) {
                span = [time(begin), time(x)];
                redraw();
            } else if (isMoved) {
                look(from - by, to - by);
            }
        };
        drag(begin);
    };
    canvas.onpointermove = ({ offsetX, offsetY }) => {
        drag?.(offsetX);
        show(drag && isMoved ? null : at(offsetX, offsetY), offsetX, offsetY);
    };
    canvas.onpointerup = ({ offsetX, offsetY }) => {
        const isClick = drag && !isMoved && !isMeasuring;
        drag = null;
        if (span) {
            say(`${ms(Math.abs(span[1] - span[0]))}, from ${seconds(Math.min(...span))} to ` +
                `${seconds(Math.max(...span))} into the scene.`);
        }
        const hit = isClick && at(offsetX, offsetY);
        if (hit?.finding) {
            say(hit.text);
            hit.finding.item.querySelector('details').open = true;
        } else if (isClick) {
            choose(hit?.frame ?? -1);
            remember(true);
        }
    };
    canvas.onpointerleave = () => show(null);
    canvas.addEventListener('wheel', (event) => {
        const sideways = event.deltaX || (event.shiftKey ? event.deltaY : 0);
        if (event.ctrlKey) {
            zoom(Math.exp(event.deltaY / 300), viewed().time(Math.max(event.offsetX, gutter)));
        } else if (sideways !== 0) {
            pan(sideways / breadth);
        } else {
            return;  // The page scrolls.
        }
        event.preventDefault();
    }, { passive: false });

    // An end of the shade is moved, or all of it; else another one is begun.
    let brush = null;
    const overAt = (x) => clamp(whole().time(x), 0, scene.stop);
    overview.onpointerdown = ({ pointerId, offsetX }) => {
        overview.setPointerCapture(pointerId);
        const { from, to } = view;
        const now = overAt(offsetX);
        const isNear = (edge) => Math.abs(offsetX - whole().x(edge)) < 6;
        let fixed = isNear(to) ? from : now;
        fixed = isNear(from) ? to : fixed;
        const isInside = now > from && now < to && to - from < scene.stop * 0.99;
        brush = fixed === now && isInside ? (time) => look(time - now + from, time - now + to)
            : (time) => time !== fixed && look(Math.min(time, fixed), Math.max(time, fixed));
    };
    overview.onpointermove = ({ offsetX }) => brush?.(overAt(offsetX));
    overview.onpointerup = () => {
        brush = null;
        remember(true);
    };

    Object.assign(keys, {
        ArrowLeft: () => pan(-0.2), ArrowRight: () => pan(0.2), '=': () => zoom(0.5),
        '.': () => step(1), ',': () => step(-1),
    });
    section.onkeydown = (event) => {
        const isElsewhere = event.target.matches('input, select') || event.ctrlKey || event.altKey ||
            event.metaKey;
        if (keys[event.key] && !isElsewhere) {
            keys[event.key]();
            event.preventDefault();
        }
    };
    document.addEventListener('keydown', (event) => {
        if (event.key === 'Escape') {
            show(null);
            if (isMeasuring) {
                measure();
            }
        }
    });
    finder.onkeydown = ({ key }) => {
        if (key === 'Enter') {
            find(finder.value.trim());
        }
    };
    picker.onchange = async () => {
        await open(Number(picker.value));
        look(0, scene.stop);
        remember(true);
    };

    const opened = new Map();
    async function open(index) {
        picker.value = index;
        const waits = opened.get(index) ?? unpack(scenes[index]);
        opened.set(index, waits);
        const next = await waits;
        if (next !== scene) {
            scene = next;
            scene.rows = rowsOf(scene);
            chosen = -1;
            span = null;
            view = { from: 0, to: Math.min(scene.stop, 5) };
        }
    }

    // From the address: "#scene=1&from=1.5&to=2&frame=100"; or "#finding=3", by the numbers of the
    // page's list.
    async function go() {
        const asked = location.hash ? Object.fromEntries(new URLSearchParams(location.hash.slice(1)))
            : { scene: scenes[0].scene, from: 0, to: 5 };
        const item = document.getElementById(`f${asked.finding}`);
        if (item) {
            const { scene: index, time, frame } = item.dataset;
            Object.assign(asked, { scene: Number(index) + 1, frame },
                time && { from: Number(time) - 0.5, to: Number(time) + 1 });
        }
        const wanted = scenes.findIndex((one) => one.scene === Number(asked.scene));
        if (scene && wanted < 0) {
            return;  // A link to something else on the page.
        }
        await open(Math.max(wanted, 0));
        const found = scene.numbers.indexOf(asked.frame);
        if (Number(asked.to) > Number(asked.from)) {
            look(clamp(Number(asked.from), 0, scene.stop), clamp(Number(asked.to), 0, scene.stop));
            visited = findings.find((one) => one.item === item) ?? null;
        } else if (found >= 0) {
            lookAround(scene.moments[found], 0.15);
        }
        choose(found);
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
            const swatch = make('canvas', { width: 128, height: 64, ariaHidden: 'true' });
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

    await go();
    repaint();
    addEventListener('popstate', go);
    new ResizeObserver(redraw).observe(board);
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', repaint);
    // What is printed has the paper's colours and width.
    for (const name of ['beforeprint', 'afterprint']) {
        addEventListener(name, () => {
            document.documentElement.classList.toggle('paper', name === 'beforeprint');
            repaint();
        });
    }
    // For programs that look at the page.
    window.timeline = {
        // What a person reads of a place: a time in a row, "output" or a stage's number for example,
        // so many pixels below the row's top. With the place on the canvas.
        at: (id, time, below) => {
            const row = places.find((place) => place.id === id);
            const [x, y] = [viewed().x(time), row.y + below];
            const hit = at(x, y);
            return { ...hit, finding: undefined, x, y, number: scene.numbers[hit?.frame] ?? null };
        },
    };
})();
