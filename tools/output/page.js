'use strict';

(async () => {
    const make = (name, properties, ...children) => {
        const element = Object.assign(document.createElement(name), properties);
        element.append(...children);
        return element;
    };

    // The table of frames is sorted by a click on a column's head.
    const table = document.getElementById('list');
    const body = table.tBodies[0];
    const heads = [...table.tHead.rows[0].cells];
    heads.forEach((head, column) => {
        const sort = () => {
            const isDown = head.ariaSort === 'ascending';
            heads.forEach((other) => { other.ariaSort = null; });
            head.ariaSort = isDown ? 'descending' : 'ascending';
            const text = (row) => row.cells[column].textContent;
            // "12.345 s" and "150–181" go by their first number, "a.log:17" as text.
            const rows = [...body.rows].sort((a, b) =>
                parseFloat(text(a)) - parseFloat(text(b)) ||
                text(a).localeCompare(text(b), undefined, { numeric: true }));
            body.append(...(isDown ? rows.reverse() : rows));
        };
        head.replaceChildren(make('button', {
            type: 'button', textContent: head.textContent, onclick: sort }));
    });

    // The timeline: the tracks of a scene, drawn on canvases when they are looked at.
    const section = document.getElementById('timeline');
    if (!section) {
        return;
    }
    const scenes = JSON.parse(document.getElementById('data').textContent);
    const seconds = (time, digits = 3) => `${time.toFixed(digits)} s`;
    const ms = (time) => isNaN(time) ? 'an unknown time'
        : `${(time * 1000).toFixed(3).replace(/\.?0+$/, '')} ms`;
    const clamp = (value, low, high) => Math.min(Math.max(value, low), high);

    // ---- What is looked at ----

    let scene = null;
    let view = { from: 0, to: 1 };
    let chosen = -1;  // A frame that is followed.
    let span = null;  // That is measured.
    let visited = null;  // The finding that was gone to.

    // What a key does, and the button that does the same.
    const commands = [
        ['ArrowLeft', () => pan(-0.25), '◀', 'Earlier'],
        ['ArrowRight', () => pan(0.25), '▶', 'Later'],
        ['+', () => zoom(0.5), '+', 'Zoom in'],
        ['-', () => zoom(2), '−', 'Zoom out'],
        ['Home', () => look(0, scene.stop), 'All', 'The whole scene'],
        [',', () => step(-1), '|◀', 'The frame before'],
        ['.', () => step(1), '▶|', 'The frame behind'],
        ['p', () => jump(-1), 'Previous finding', 'Previous finding'],
        ['n', () => jump(1), 'Next finding', 'Next finding'],
    ];
    const keys = { ...Object.fromEntries(commands), Escape: () => show(null) };
    const picker = make('select', { id: 'scene' }, ...scenes.map(
        ({ scene: value, title }) => make('option', { value, textContent: title })));
    const finder = make('input', { type: 'search', id: 'frame', inputMode: 'numeric', size: 8 });
    const status = make('p', { className: 'status', role: 'status' });
    const say = (text) => { status.textContent = text; };
    const controls = make('div', { className: 'controls', role: 'toolbar', ariaLabel: 'Timeline' },
        ...(scenes.length > 1 ? [make('label', {}, 'Scene ', picker)] : []),
        make('label', {}, 'Find frame ', finder),
        ...commands.map(([key, onclick, textContent, title]) => make('button', {
            type: 'button', title: `${title} (${key})`, ariaKeyShortcuts: key, onclick,
            textContent })));
    const drawing = (className, ariaLabel) =>
        make('canvas', { className, tabIndex: 0, role: 'application', ariaLabel });
    const overview = drawing('overview',
        'Overview of the scene; the arrow keys move what is shown below');
    const canvas = drawing('frames', 'Frames in stages over time, moved by the keys of the ' +
        'buttons; the table of frames has the same in words');
    // The status says the same.
    const tip = make('div', { className: 'tip', hidden: true, ariaHidden: 'true' });
    const board = make('div', { className: 'board' }, overview, canvas, tip);
    const legend = make('ul', { className: 'legend' });
    section.append(
        make('p', {}, 'A frame passes the stages from top to bottom; a bar is the time that it took ' +
            'in one. A bar longer than its neighbours, or a gap, is where to look. Point at ' +
            'anything to read what it is; click on a frame to follow it; drag to move, with Shift ' +
            'to measure; Ctrl and the wheel zoom.'),
        controls, board, status, legend);

    // ---- Shapes ----

    const styles = getComputedStyle(document.documentElement);
    // Asked of the browser once, as asking for each frame would take seconds.
    const palette = {};
    const color = (name) => (palette[name] ??= styles.getPropertyValue(`--${name}`).trim());
    let pen = null;  // Of the canvas that is drawn on.
    const fill = (name, ...box) => {
        pen.fillStyle = color(name);
        pen.fillRect(...box);
    };
    const stroke = (name, thick, path) => {
        pen.strokeStyle = color(name);
        pen.lineWidth = thick;
        pen.stroke(new Path2D(path));
    };
    // `room`: a longer text is written narrower.
    const write = (name, align, text, x, y, room) => {
        pen.font = '12px system-ui, sans-serif';
        pen.textBaseline = 'middle';
        pen.fillStyle = color(name);
        pen.textAlign = align;
        pen.fillText(text, x, y, room);
    };

    const solid = (name, words) => ({
        words, isBar: true, draw: (...box) => fill(name, ...box) });
    // Apart from the next one, with its frame's number.
    const bar = (name, words) => ({ words, isFrame: true, isBar: true, hasNumber: true,
        draw: (x, y, w, h) => fill(name, x, y, w > 3 ? w - 1 : w, h) });
    // Errors, warnings and notes differ in shape, too.
    const mark = (name, sign, words) => ({ words, isMark: true, reach: 8,
        draw: (x, y, w, h) => write(name, 'center', sign, x + w / 2, y + h / 2) });
    // All that is drawn: how it looks in a box and what it means. Bars may be many: those narrower
    // than a pixel are drawn together. `reach`: read from so many pixels away, else from one.
    const shapes = {
        work: bar('work', 'a frame that the stage works on'),
        wait: { ...solid('quiet', 'a frame waits for the stage'), isFrame: true },
        since: bar('bars', 'stage 0: time since the frame before'),
        // With a cross where it ends.
        stands: { words: 'a frame that never left the stage', isFrame: true, reach: 5,
            draw: (x, y, w, h) => {
                fill('bad', x, y + h / 2 - 2, w, 3);
                stroke('bad', 2, `M${x + w - 4} ${y + h / 2 - 5}l8 10m-8 0l8 -10`);
            } },
        output: { words: 'a frame comes out', isFrame: true, isBar: true,
            draw: (x, y, w, h) => fill('work', x + w - 2, y + h / 2, 2, h / 2) },
        late: { words: 'a frame comes out late, and the time since the one before', isFrame: true,
            draw: (x, y, w, h) => {
                fill('bad', x, y + h / 2, w, 3);
                fill('bad', x + w - 3, y, 3, h);
            } },
        // Without gaps where it changes within a pixel.
        flight: { words: 'how many frames are in flight', isBar: true, hasLevels: true,
            draw: (x, y, w, h) =>
                fill('quiet', Math.floor(x), y, Math.ceil(x + w) - Math.floor(x), h) },
        error: mark('bad', '▲', 'error'),
        warning: mark('doubtful', '◆', 'warning'),
        note: mark('quiet', '●', 'note'),
        running: solid('fine', 'a thread runs'),
        runnable: solid('bad', 'a thread waits for a CPU'),
        blocked: solid('doubtful', 'a thread is blocked in the kernel'),
        stopped: solid('quiet', 'a thread is stopped by a signal or a debugger'),
        // From the one that wakes to the one that is woken, which may be above it.
        wake: { words: 'who woke whom, where a frame was late', draw: (x, y, w, h) => {
            const back = h > 0 ? -5 : 5;
            stroke('ink', 1.5, `M${x + w / 2} ${y}v${h}m-3 ${back}l3 ${-back}l3 ${back}`);
        } },
        chosen: { words: 'the frame that was clicked on', draw: (x, y, w, h) =>
            stroke('ink', 2, `M${x - 1} ${y - 1}h${Math.max(w, 2) + 2}v${h + 2}H${x - 1}z`) },
        shade: { words: 'in the overview what is shown below; else what is measured',
            draw: (x, y, w, h) => {
                fill('shade', x, y, w, h);
                stroke('link', 2, `M${x} ${y}v${h}m${w} 0v${-h}`);
            } },
    };

    // ---- Data ----

    // A column of numbers is packed as the steps from one that is known to the next.
    const sumsOf = (steps, unit = 1) => {
        let sum = 0;
        return Float64Array.from(steps, (step) => step === null ? NaN : (sum += step) * unit);
    };

    function unpackLayer({ shape, text, times, values }) {
        const all = sumsOf(times, 1e-6);
        const end = all.filter((_, i) => i % 2 === 1);
        const lengths = end.map((time, k) => time - all[2 * k]);  // NaN where it is not known.
        const sums = sumsOf(values);
        const most = sums.reduce((a, b) => Math.max(a, b), 1);
        const { isFrame, isMark, hasLevels } = shapes[shape];
        return {
            shape, end, begin: end.map((time, k) => time - (lengths[k] || 0)),
            frames: isFrame || isMark ? sums : [], levels: hasLevels && sums.map((sum) => sum / most),
            read: (k) => isMark ? text : text.replace('{}', hasLevels ? sums[k] : ms(lengths[k])),
        };
    }

    async function unpack({ scene: number, data }) {
        const bytes = Uint8Array.from(atob(data), (letter) => letter.charCodeAt(0));
        const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('deflate'));
        const { frames, tracks: packed, ...more } = await new Response(stream).json();
        const numbers = frames.numbers.flatMap(([first, length]) =>
            Array.from({ length }, (_, i) => String(BigInt(first) + BigInt(i))));
        const tracks = packed.map(
            (track) => ({ ...track, layers: track.layers.map(unpackLayer) }));
        // The first track has the findings, each as a layer.
        const marks = tracks[0].layers.filter(({ begin }) => begin[0] >= 0)
            .sort((a, b) => a.begin[0] - b.begin[0]);
        return { ...more, scene: number, numbers, words: frames.words, marks, tracks,
            moments: sumsOf(frames.moments, 1e-6) };
    }

    // ---- Charts: tracks over time ----

    const AXIS = 20;
    const EDGE = 12;  // Drawn there is what is farther out of sight.
    let breadth = 0;
    let gutter = 0;  // For the names of tracks.

    const scaleOf = (from, to) => ({
        from,
        to,
        time: (x) => from + ((x - gutter) / (breadth - gutter)) * (to - from),
        x: (time) => clamp(gutter + ((time - from) / (to - from)) * (breadth - gutter),
            gutter - EDGE, breadth + EDGE),
    });
    const viewed = () => scaleOf(view.from, view.to);
    const whole = () => scaleOf(0, scene.stop);

    function drawAxis({ from, to, x }, height) {
        const least = ((to - from) * 90) / (breadth - gutter);
        const power = 10 ** Math.floor(Math.log10(least));
        const step = [1, 2, 5, 10].map((times) => times * power).find((one) => one >= least);
        const digits = Math.max(3, Math.ceil(-Math.log10(step)));
        for (let tick = Math.ceil(from / step) * step; tick <= to; tick += step) {
            fill('rule', x(tick), AXIS - 5, 1, height - AXIS + 5);
            if (x(tick) < breadth - 30) {
                write('ink', 'center', seconds(Math.max(tick, 0), digits),
                    Math.max(x(tick), gutter + 28), AXIS / 2 - 2);
            }
        }
    }

    function drawTrack({ from, to, x }, { y, height, layers }) {
        const pad = Math.ceil(height / 8);
        const room = height - 2 * pad;
        // `bottom`, `share`: of the track's height.
        const put = (shape, left, width, bottom, share) => shapes[shape].draw(
            left, y + pad + (1 - bottom - share) * room, width, share * room);
        const narrow = {};  // How much of each pixel is taken by bars that are narrower, by shapes.
        const above = [];
        for (const { shape, begin, end, frames, levels } of layers) {
            const { isBar, isFrame, hasNumber } = shapes[shape];
            const shares = (narrow[shape] ??= new Float64Array(breadth + EDGE + 1));
            for (let k = 0; k < end.length; ++k) {
                if (end[k] < from || begin[k] > to) {
                    continue;
                }
                const left = x(begin[k]);
                const width = x(end[k]) - left;
                const share = levels ? levels[k] : 1;
                if (isBar && width < 1) {
                    const pixel = Math.floor(left);
                    shares[pixel] = levels ? Math.max(shares[pixel], share)
                        : shares[pixel] + Math.max(width, 1e-6);
                } else if (isBar) {
                    put(shape, left, width, 0, share);
                } else {
                    above.push([shape, left, width, 0, share]);
                }
                if (hasNumber && width > 34) {
                    write('paper', 'center', scene.numbers[frames[k]], left + width / 2,
                        y + height / 2);
                }
                if (isFrame && frames[k] === chosen) {
                    above.push(['chosen', left, width, 0, 1]);
                }
            }
        }
        const filled = new Float64Array(breadth + EDGE + 1);
        for (const [shape, shares] of Object.entries(narrow)) {
            shares.forEach((share, left) => {
                if (share > 0) {  // However little it is, it is seen.
                    const part = Math.min(Math.max(share, 1 / 6), 1 - filled[left]);
                    put(shape, left, 1, filled[left], part);
                    filled[left] += part;
                }
            });
        }
        above.forEach((one) => put(...one));
    }

    function drawChart(element, scale, tracks) {
        const height = tracks.reduce((sum, track) => sum + track.height, AXIS);
        const ratio = matchMedia('print').matches ? 4 : window.devicePixelRatio;
        element.width = Math.round(breadth * ratio);
        element.height = Math.round(height * ratio);
        pen = element.getContext('2d');
        pen.scale(ratio, ratio);
        drawAxis(scale, height);
        let y = AXIS;
        for (const track of tracks) {
            track.y = y;
            y += track.height;
            if (track.name) {
                fill('rule', 0, track.y, breadth, 1);
                write('ink', 'left', track.name, 0, track.y + track.height / 2, gutter - 8);
            }
        }
        pen.rect(gutter, 0, breadth - gutter, height);
        pen.clip();
        tracks.forEach((track) => drawTrack(scale, track));
        return height;
    }

    function draw() {
        breadth = board.clientWidth;
        gutter = Math.round(Math.min(150, breadth * 0.3));
        const all = whole();
        // Findings, outputs, and frames in flight.
        const high = drawChart(overview, all, scene.tracks.slice(0, 3));
        shapes.shade.draw(all.x(view.from), AXIS, all.x(view.to) - all.x(view.from), high - AXIS);
        const { x } = viewed();
        const height = drawChart(canvas, viewed(), scene.tracks);
        for (const { time, from, to } of scene.wakes) {
            const [a, b] = [from, to].map((id) => scene.tracks.find((one) => one.id === id)?.y + 10);
            shapes.wake.draw(x(time), a, 0, b - a);
        }
        if (span) {
            const [a, b] = span.map(x);
            shapes.shade.draw(a, AXIS, b - a, height - AXIS);
        }
    }

    let due = 0;
    function redraw() {
        cancelAnimationFrame(due);
        due = requestAnimationFrame(draw);
    }

    // Of the shapes that the scene has.
    function drawLegend() {
        const used = new Set(['chosen', 'shade', scene.wakes.length > 0 && 'wake',
            ...scene.tracks.flatMap(({ layers }) =>
                layers.filter(({ end }) => end.some(isFinite)).map(({ shape }) => shape))]);
        const names = Object.keys(shapes).filter((name) => used.has(name));
        legend.replaceChildren(...names.map((name) => {
            const swatch = make('canvas', { width: 128, height: 64, ariaHidden: 'true' });
            pen = swatch.getContext('2d');
            pen.scale(4, 4);
            shapes[name].draw(4, 2, 22, 12);
            return make('li', {}, swatch, ` ${shapes[name].words}`);
        }));
    }

    // ---- What is where ----

    // What the log's clock showed: a date, which may lack its year, with a time; or seconds. Scene
    // time goes on where the clock was set.
    function logged(time) {
        const { from, clocks } = scene.clock;
        const clock = time + clocks.findLast(([since]) => since <= time)[1];
        return from.includes('-')
            ? new Date(clock * 1000).toISOString().slice(-1 - from.length, -1).replace('T', ' ')
            : from && seconds(clock);
    }

    // The nearest thing.
    function at(x, y) {
        const track = scene.tracks.find((one) => y >= one.y && y < one.y + one.height);
        const { time } = viewed();
        const now = time(x);
        let hit = null;
        let least = Infinity;
        for (const { shape, begin, end, frames, read } of (x >= gutter && track?.layers) || []) {
            const reach = (shapes[shape].reach ?? 1) * (time(1) - time(0));
            for (let k = 0; k < end.length; ++k) {
                const distance = Math.max(begin[k] - now, now - end[k], 0);
                if (distance <= reach && distance < least) {
                    least = distance;
                    const who = shapes[shape].isFrame ? `frame ${scene.numbers[frames[k]]}: ` : '';
                    hit = { frame: frames[k] ?? -1, text: who + read(k) };
                }
            }
        }
        return hit;
    }

    function show(hit, x, y) {
        tip.hidden = !hit;
        if (!hit) {
            return;
        }
        const time = viewed().time(x);
        const clock = logged(time);
        const lines = [hit.text, scene.words[hit.frame] ?? [],
            `${seconds(time)} into the scene${clock && `, ${clock} in the log`}`].flat();
        tip.replaceChildren(...lines.map((text) => make('div', {}, make('bdi', {}, text))));
        tip.style.left = `${clamp(x + 12, 0, Math.max(breadth - tip.offsetWidth, 0))}px`;
        tip.style.top = `${canvas.offsetTop + y + 16}px`;
    }

    function choose(frame) {
        chosen = frame;
        redraw();
        if (frame >= 0) {
            const things = scene.tracks.flatMap(({ layers }) => layers)
                .filter(({ frames }) => frames.includes(frame))
                .map(({ frames, read }) => read(frames.indexOf(frame)));
            say(`Frame ${scene.numbers[frame]}: ${scene.words[frame]}, ` +
                `${seconds(scene.moments[frame])} into the scene; ${things.join('; ')}`);
        }
    }

    // ---- Moving ----

    let timer = 0;
    function look(from, to) {
        const length = clamp(to - from, 1e-4, scene.stop);
        view.from = clamp(from, 0, scene.stop - length);
        view.to = view.from + length;
        redraw();
        remember();
    }
    const lookAround = (time, half) => look(time - half, time + half);
    const pan = (share) => look(view.from + share * (view.to - view.from),
        view.to + share * (view.to - view.from));
    const zoom = (factor, around = (view.from + view.to) / 2) =>
        look(around - (around - view.from) * factor, around + (view.to - around) * factor);

    // Where it stops, as browsers do not let an address change often.
    function remember() {
        clearTimeout(timer);
        timer = setTimeout(() => history.replaceState(null, '', `#scene=${scene.scene}` +
            `&from=${view.from.toFixed(4)}&to=${view.to.toFixed(4)}` +
            (chosen < 0 ? '' : `&frame=${scene.numbers[chosen]}`)), 200);
    }

    function find(frame) {
        if (scene.numbers.includes(frame)) {
            location.hash = new URLSearchParams({ scene: scene.scene, frame });
        } else {
            say(`There is no frame ${frame} in this scene.`);
        }
    }
    const step = (by) =>
        find(scene.numbers[clamp(chosen + by, 0, scene.numbers.length - 1)]);

    function jump(by) {
        const next = scene.marks[scene.marks.indexOf(visited) + by];
        if (next) {
            const { scene: number, tracks: [{ layers }] } = scene;
            location.hash = `scene=${number}&finding=${layers.indexOf(next)}`;
        } else {
            say(`There is no ${by > 0 ? 'later' : 'earlier'} finding in this scene.`);
        }
    }

    // Follows the address: "#scene=1&from=1.5&to=2&frame=100"; or "#scene=1&finding=3".
    async function go() {
        const asked = Object.fromEntries(new URLSearchParams(location.hash.slice(1)));
        const index = scenes.findIndex((one) => one.scene === Number(asked.scene));
        if (scene && index < 0) {
            return;  // A link to something else on the page.
        }
        const wanted = scenes[Math.max(index, 0)];
        const opened = await (wanted.opened ??= unpack(wanted));
        if (opened !== scene) {
            scene = opened;
            picker.value = scene.scene;
            chosen = -1;
            span = null;
            look(0, Math.min(scene.stop, 5));
            drawLegend();
        }
        visited = scene.tracks[0].layers[asked.finding];
        const time = visited?.begin[0];
        const found = visited?.frames[0] ?? scene.numbers.indexOf(asked.frame);
        if (time >= 0) {
            look(time - 0.5, time + 1);
        } else if (Number(asked.to) > Number(asked.from)) {
            look(Number(asked.from), Number(asked.to));
        } else if (found >= 0) {
            lookAround(scene.moments[found], Math.min((view.to - view.from) / 2, 0.15));
        }
        choose(found);
        if (visited) {
            say(visited.read());
        }
        if (index >= 0 && document.activeElement?.matches('a')) {
            section.scrollIntoView({ block: 'nearest' });
        }
    }

    // ---- Mouse and keys ----

    // `start`: of a drag, gives what each move of it does. `click`: without a move.
    function onDrag(element, start, click) {
        let begin = null;
        let move = null;
        element.onpointerdown = (event) => {
            element.setPointerCapture(event.pointerId);
            begin = event;
            move = null;
        };
        element.onpointermove = ({ offsetX, offsetY }) => {
            if (begin && Math.abs(offsetX - begin.offsetX) > 3) {
                move ??= start(begin);
            }
            move?.(offsetX);
            if (element === canvas) {
                show(move ? null : at(offsetX, offsetY), offsetX, offsetY);
            }
        };
        element.onpointerup = (event) => {
            if (begin && !move) {
                click(event);
            }
            begin = move = null;
        };
    }
    onDrag(canvas, ({ offsetX: begin, shiftKey }) => {
        const { from, to, time } = viewed();
        return (x) => {
            if (shiftKey) {
                span = [time(begin), time(x)].sort((a, b) => a - b);
                say(`${ms(span[1] - span[0])}, from ${seconds(span[0])} to ${seconds(span[1])} ` +
                    'into the scene.');
                redraw();
            } else {
                look(from + time(begin) - time(x), to + time(begin) - time(x));
            }
        };
    }, ({ offsetX, offsetY }) => {
        span = null;
        choose(at(offsetX, offsetY)?.frame ?? -1);
        remember();
    });
    onDrag(overview, ({ offsetX }) => {
        const ends = (x) => [whole().time(offsetX), whole().time(x)].sort((a, b) => a - b);
        return (x) => look(...ends(x));
    }, ({ offsetX }) => lookAround(whole().time(offsetX), (view.to - view.from) / 2));
    canvas.onpointerleave = () => show(null);
    canvas.addEventListener('wheel', (event) => {
        if (event.ctrlKey) {
            zoom(Math.exp(event.deltaY / 300), viewed().time(Math.max(event.offsetX, gutter)));
        } else if (event.deltaX !== 0) {
            pan(event.deltaX / breadth);
        } else {
            return;  // The page scrolls.
        }
        event.preventDefault();
    }, { passive: false });
    section.onkeydown = (event) => {
        const isElsewhere = event.target.matches('input, select') || event.ctrlKey || event.altKey ||
            event.metaKey;
        if (keys[event.key] && !isElsewhere) {
            keys[event.key]();
            event.preventDefault();
        }
    };
    finder.onkeydown = ({ key }) => {
        if (key === 'Enter') {
            find(finder.value.trim());
        }
    };
    picker.onchange = () => { location.hash = `scene=${picker.value}`; };

    await go();
    draw();
    addEventListener('popstate', go);
    new ResizeObserver(redraw).observe(board);
    matchMedia('print').addEventListener('change', draw);
    // For programs that look at the page.
    window.timeline = { at, xOf: (time) => viewed().x(time), shown: () => scene };
})();
