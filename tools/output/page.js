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
        const shown = { ...await new Response(stream).json(), scene };
        const { outputs, flight } = shown;
        shown.numbers = shown.numbers.flatMap(([first, length]) =>
            Array.from({ length }, (_, i) => String(BigInt(first) + BigInt(i))));
        for (const stage of shown.stages) {
            const [left, waits, works] = [stage.left, stage.waits, stage.works].map(timesOf);
            const begun = left.map((time, k) => time - works[k]);
            const came = begun.map((time, k) => time - waits[k]);
            Object.assign(stage, { frames: sumsOf(stage.frames), came, begun, left });
        }
        shown.moments = timesOf(outputs.moments);
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
    // All that is drawn, in a box: in the legend as well.
    const shapes = {
        work: (pen, x, y, w, h) => fill(pen, 'work', [x, y, w, h - 6]),
        // Below those at work meanwhile.
        wait: (pen, x, y, w, h) => fill(pen, 'work', [x, y + h - 4, w, 4]),
        since: (pen, x, y, w, h) => w > 3 ? outline(pen, 'bars', 1, x + 0.5, y + 0.5, w - 1, h - 7)
            : fill(pen, 'bars', [x, y, w, h - 6]),
        // With a cross where it ends.
        stands: (pen, x, y, w, h) => {
            for (let dash = x; dash < x + w; dash += 6) {
                fill(pen, 'bad', [dash, y + h / 2 - 2, Math.min(4, x + w - dash), 4]);
            }
            stroke(pen, 'bad', 2, `M${x + w - 9} ${y + h / 2 - 5}l8 10m-8 0l8 -10`);
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
    const write = (pen, name, align, text, x, y) => {
        pen.fillStyle = color(name);
        pen.textAlign = align;
        pen.fillText(text, x, y);
    };

    // ---- Charts: rows over time ----

    const AXIS = 20;
    const EDGE = 12;  // Drawn there is what is farther out of sight.
    let breadth = 0;
    let gutter = 0;  // For the names of rows.
    let isPaper = false;

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

    function drawName(pen, name, y) {
        let shown = name;
        while (shown.length > 1 && pen.measureText(shown).width > gutter - 8) {
            shown = `${shown.slice(0, -2)}…`;
        }
        write(pen, 'ink', 'left', shown, 0, y);
    }

    // Draws rows, one below the other, and returns the pen and the rows with their tops.
    function drawChart(element, scale, rows) {
        const height = rows.reduce((sum, row) => sum + row.height, AXIS);
        const ratio = isPaper ? 4 : window.devicePixelRatio || 1;
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
            drawName(pen, row.name, y + row.height / 2);
            return { ...row, y };
        });
        pen.rect(gutter, 0, breadth - gutter, height);
        pen.clip();
        for (const { draw, y, height, pad } of placed) {
            draw(pen, scale, y + pad, height - 2 * pad);
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

    // ---- Rows. Of each is known how it is drawn, and what there is at a time, to be said in words:
    // `near`: so far off is near enough; `y`: in pixels from the row's top. ----

    const ROW = { height: 34, pad: 5, isRuled: true };

    const findingsRow = (height) => ({
        id: 'findings', name: 'findings', height, pad: (height - 12) / 2,
        draw: (pen, { x }, y, h) => marks().forEach(({ time, severity }) =>
            shapes[severity](pen, x(time) - 6, y, 12, h)),
        at(time, near) {
            const distance = (finding) => Math.abs(finding.time - time);
            const [finding] = marks().sort((a, b) => distance(a) - distance(b));
            return finding && distance(finding) <= near * 1.6
                ? { time: finding.time, finding, text: finding.words } : null;
        },
    });

    const outputRow = ({ period, numbers, outputs: { frames, times, late } }) => ({
        ...ROW, id: 'output', name: 'output',
        draw(pen, scale, y, h) {
            const { from, to, x } = scale;
            const showsDue = x(from + period) - x(from) > 4;
            for (const k of inSight(times, scale)) {
                if (!late.has(k)) {
                    shapes.output(pen, x(times[k]) - 2, y, 2, h);
                }
                if (showsDue && k > 0) {
                    shapes.due(pen, x(times[k - 1] + period) - 1, y, 1, h);
                }
            }
            for (const k of late) {
                if (times[k] >= from && times[k - 1] <= to) {
                    const before = x(times[k - 1]);
                    shapes.late(pen, before, y, x(times[k]) - before, h);
                }
            }
        },
        at(time, near) {
            const next = firstAt(times, time);
            const isNext = next === 0 || late.has(next) ||
                times[next] - time <= time - times[next - 1];
            const k = isNext ? next : next - 1;
            if (k === times.length || (!late.has(k) && Math.abs(times[k] - time) > near)) {
                return null;
            }
            const interval = k > 0 ? `, ${ms(times[k] - times[k - 1])} after the one before` : '';
            return { frame: frames[k], time: times[k],
                text: `frame ${numbers[frames[k]]} came out${interval}` };
        },
    });

    const flightRow = ({ flight: { times, counts, most } }) => ({
        ...ROW, id: 'flight', name: 'in flight',
        draw(pen, scale, y, h) {
            let k = firstAt(times, scale.from) - 1;
            for (let x = gutter; x < breadth; ++x) {
                let peak = counts[k] ?? 0;
                for (const to = scale.time(x + 1); times[k + 1] < to; ++k) {
                    peak = Math.max(peak, counts[k + 1]);
                }
                shapes.flight(pen, x, y + h - (peak / most) * h, 1, (peak / most) * h);
            }
        },
        at: (time) => ({ time, text: `${counts[firstAt(times, time) - 1] ?? 0} frames in flight` }),
    });

    const stageRow = ({ name, frames, came, begun, left, stands }, stage) => ({
        ...ROW, id: stage, name: `${stage} ${name}`,
        draw(pen, scale, y, h) {
            const { to, x } = scale;
            // Frames that have come by the view's end leave within a minute.
            for (const k of inSight(left, scale, 60)) {
                if (came[k] > to) {
                    continue;
                }
                const end = x(left[k]);
                const [begin, from] = isNaN(came[k]) ? [end, end] : [x(begun[k]), x(came[k])];
                if (begin - from > 0.5) {
                    shapes.wait(pen, from, y, begin - from, h);
                }
                const width = end - begin;
                shapes[stage === 0 ? 'since' : 'work'](
                    pen, begin, y, Math.max(width > 3 ? width - 1 : width, 1), h);
                if (width > 34) {
                    write(pen, stage === 0 ? 'ink' : 'paper', 'center', scene.numbers[frames[k]],
                        (begin + end) / 2, y + h / 2 - 2);
                }
            }
            for (const { since, until } of stands) {
                shapes.stands(pen, x(since), y, x(until) - x(since), h);
            }
        },
        at(time, near, y) {
            const told = (frame, what) => ({ frame, time,
                text: `frame ${scene.numbers[frame]}, stage ${stage} (${name}): ${what}` });
            // Of those that came a while later none is there yet.
            const first = firstAt(left, time);
            const there = Array.from({ length: 100 }, (_, i) => first + i)
                .filter((k) => came[k] <= time);
            const waits = there.find((k) => begun[k] > time);
            const works = there.find((k) => begun[k] <= time);
            // Those that wait are drawn below the one at work.
            if (waits !== undefined && (works === undefined || y >= ROW.height - 9)) {
                return told(frames[waits], `waiting for ${ms(begun[waits] - came[waits])}`);
            }
            if (works !== undefined) {
                const took = ms(left[works] - begun[works]);
                return told(frames[works],
                    stage === 0 ? `${took} since the frame before` : `at work for ${took}`);
            }
            const one = stands.find(({ since, until }) => since <= time && time <= until + near);
            return one && told(one.frame, 'never seen to leave');
        },
        // From when to when the frame was in the stage; nothing where it never was.
        stayOf(frame) {
            const k = frames.indexOf(frame);
            return k < 0 ? stands.find((one) => one.frame === frame)
                : { since: came[k], until: left[k], hasLeft: true };
        },
    });

    const threadRow = ({ id, name, begin, end, states, cpus }) => ({
        id, thread: id, name: `${id} ${name}`, height: 20, pad: 4, isRuled: true,
        // What is shorter than a pixel shares it with what else is there, by how long each takes.
        draw(pen, { from, to, time, x }, y, h) {
            const pixel = time(1) - time(0);
            const shares = new Map();
            for (let k = firstAt(end, from); begin[k] <= to; ++k) {
                const state = states[k];
                const width = x(end[k]) - x(begin[k]);
                if (width >= 1) {
                    shapes[state](pen, x(begin[k]), y, width, h);
                    continue;
                }
                const at = Math.floor(x(begin[k]));
                const share = shares.get(at) ?? {};
                share[state] = (share[state] ?? 0) + (end[k] - begin[k]) / pixel;
                shares.set(at, share);
            }
            for (const [at, share] of shares) {
                let top = y + h;
                for (const state of ['running', 'stopped', 'blocked', 'runnable']) {
                    const high = share[state] ? Math.max(share[state] * h, 2) : 0;
                    top = Math.max(top - high, y);
                    shapes[state](pen, at, top, 1, high);
                }
            }
        },
        at(time, near) {
            const k = firstAt(end, time);
            const isThere = begin[k] <= time + near / 5;
            const state = isThere ? states[k] : 'asleep, or not known';
            const length = isThere ? ` for ${ms(end[k] - begin[k])}` : '';
            const what = { running: `ran${length} on CPU ${cpus[k]}`,
                runnable: `waited${length} for a CPU${cpus[k] < 0 ? '' : `, CPU ${cpus[k]}`}`,
                blocked: `blocked in the kernel${length}`, stopped: `stopped${length}` }[state];
            return { state, time, text: `thread ${id} (${name}): ${what ?? state}` };
        },
    });

    const rowsOf = (shown) => {
        const threadRows = (stage) =>
            shown.threads.filter((thread) => thread.stage === stage).map(threadRow);
        return [{ ...findingsRow(24), isRuled: true }, outputRow(shown), flightRow(shown),
            ...shown.stages.flatMap((one, stage) => [stageRow(one, stage), ...threadRows(stage)]),
            ...threadRows(-1)];
    };

    // Of the overview.
    const shadeRow = {
        name: '', height: 0, pad: 0,
        draw: (pen, { x }, y) => shapes.shade(pen, x(view.from), y,
            Math.max(x(view.to) - x(view.from), 2), pen.canvas.height),
    };
    const partsRow = ({ name, parts }, stage) => ({
        name: `${stage} ${name}`, height: 16, pad: 0,
        draw(pen, scale, y, h) {
            const step = (breadth - gutter) / parts.length;
            const level = (value) => y + Math.round((1 - Math.min(value / scene.top, 1)) * (h - 4));
            parts.forEach((figures, part) => ['high', 'median'].forEach((figure) => {
                if (figures) {
                    shapes[figure](pen, gutter + part * step, level(figures[figure]), step, 2);
                }
            }));
        },
    });

    let places = [];  // Rows with their tops.

    function draw() {
        palette = {};
        breadth = board.clientWidth;
        gutter = Math.round(Math.min(150, breadth * 0.3));
        const scale = viewed();
        const { pen, height, placed } = drawChart(canvas, scale, scene.rows);
        places = placed;
        for (const { time, from, to } of scene.wakes) {
            const [a, b] = [from, to].map((id) => places.find(({ thread }) => thread === id)?.y + 10);
            shapes.wake(pen, scale.x(time), a, 0, b - a);
        }
        for (const { y, stayOf } of places) {
            const stay = stayOf?.(chosen);
            if (stay) {
                const to = scale.x(stay.until);
                const from = isNaN(stay.since) ? to : scale.x(stay.since);
                shapes.chosen(pen, from, y + ROW.pad, to - from, ROW.height - 2 * ROW.pad);
            }
        }
        if (span) {
            const [a, b] = span.map(scale.x).sort((one, other) => one - other);
            shapes.span(pen, a, AXIS, b - a, height - AXIS);
            write(pen, 'ink', 'center', ms(Math.abs(span[1] - span[0])), (a + b) / 2,
                (AXIS + height) / 2 - 9);
        }
        drawChart(overview, whole(), [shadeRow, findingsRow(18), ...scene.stages.map(partsRow)]);
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
        const { time } = viewed();
        return row && x >= gutter ? row.at(time(x), time(5) - time(0), y - row.y) : null;
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

    let held = null;
    canvas.onpointerdown = (event) => {
        canvas.setPointerCapture(event.pointerId);
        held = { x: event.offsetX, scale: viewed(), isMoved: false };
        if (isMeasuring) {
            span = [held.scale.time(held.x), held.scale.time(held.x)];
        }
    };
    canvas.onpointermove = ({ offsetX, offsetY }) => {
        if (held) {
            const { from, to, time } = held.scale;
            held.isMoved ||= Math.abs(offsetX - held.x) > 3;
            if (isMeasuring) {
                span[1] = time(offsetX);
                redraw();
            } else if (held.isMoved) {
                const by = time(offsetX) - time(held.x);
                look(from - by, to - by);
            }
        }
        show(held?.isMoved ? null : at(offsetX, offsetY), offsetX, offsetY);
    };
    canvas.onpointerup = ({ offsetX, offsetY }) => {
        const isClick = held && !held.isMoved && !isMeasuring;
        held = null;
        if (isMeasuring && span) {
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

    // An end of the shade is drawn, or all of it; else another shade.
    let brush = null;
    overview.onpointerdown = ({ pointerId, offsetX }) => {
        overview.setPointerCapture(pointerId);
        const { time, x } = whole();
        const isNear = (edge) => Math.abs(offsetX - x(edge)) < 6;
        const now = clamp(time(offsetX), 0, scene.stop);
        brush = { fixed: now };
        if (isNear(view.from)) {
            brush = { fixed: view.to };
        } else if (isNear(view.to)) {
            brush = { fixed: view.from };
        } else if (now > view.from && now < view.to && view.to - view.from < scene.stop * 0.99) {
            brush = { grip: now - view.from, length: view.to - view.from };
        }
    };
    overview.onpointermove = ({ offsetX }) => {
        const now = clamp(whole().time(offsetX), 0, scene.stop);
        if (brush?.fixed === undefined) {
            brush && look(now - brush.grip, now - brush.grip + brush.length);
        } else if (now !== brush.fixed) {
            look(Math.min(now, brush.fixed), Math.max(now, brush.fixed));
        }
    };
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
    finder.addEventListener('keydown', (event) => {
        if (event.key === 'Enter') {
            find(finder.value.trim());
        }
    });
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
        const found = scene.numbers.indexOf(asked.frame);
        if (Number(asked.to) > Number(asked.from)) {
            look(clamp(Number(asked.from), 0, scene.stop), clamp(Number(asked.to), 0, scene.stop));
            visited = findings.find((one) => one.item === item) ?? null;
        } else if (found >= 0) {
            lookAround(scene.moments[found], 0.15);
        } else if (wanted < 0) {
            view = { from: 0, to: Math.min(scene.stop, 5) };
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

    await open(0);
    await go();
    drawLegend();
    draw();
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
        at: (id, time, below) => {
            const row = places.find((place) => place.id === id);
            const [x, y] = [viewed().x(time), row.y + below];
            const hit = at(x, y);
            return { ...hit, finding: undefined, x, y, number: scene.numbers[hit?.frame] ?? null };
        },
    };
})();
