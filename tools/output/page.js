'use strict';

(() => {
    const tip = document.getElementById('tip');
    document.documentElement.classList.add('script');

    const SVG = 'http://www.w3.org/2000/svg';
    const descOf = (element) => element.querySelector(':scope > desc')?.textContent ?? '';
    // What there is to say of a bar: its stage, and its frame as a whole.
    const tell = (bar) => `${descOf(bar)}\n${descOf(bar.parentNode)}`;

    const showTip = (text, box) => {
        tip.textContent = text;
        tip.hidden = false;
        const left = Math.min(box.left, window.innerWidth - tip.offsetWidth - 8);
        const below = box.bottom + 8;
        const fits = below + tip.offsetHeight < window.innerHeight;
        tip.style.left = `${Math.max(left, 8)}px`;
        tip.style.top = `${fits ? below : box.top - tip.offsetHeight - 8}px`;
    };
    const hideTip = () => {
        tip.hidden = true;
    };

    class Timeline {
        constructor(figure) {
            this.figure = figure;
            this.scroll = figure.querySelector('.scroll');
            this.svg = this.scroll.querySelector('svg');
            // The browser's own tips would cover those that are shown here.
            this.svg.querySelectorAll('.f title').forEach((title) => {
                const desc = document.createElementNS(SVG, 'desc');
                desc.textContent = title.textContent;
                title.replaceWith(desc);
            });
            this.width = parseFloat(this.svg.style.width);
            this.zoom = 1;
            this.frames = [...this.svg.querySelectorAll('.f')];
            this.chosen = document.createElement('p');
            this.chosen.className = 'chosen';
            this.chosen.setAttribute('role', 'status');
            figure.append(this.chosen);
            this.addButtons();
            this.listen();
            this.follow(null);
            // What is to be seen here may be out of sight on a small screen.
            const first = this.svg.querySelector('.blamed, .f:not(.good)');
            if (first) {
                const box = first.getBoundingClientRect();
                const sight = this.scroll.getBoundingClientRect();
                this.scroll.scrollLeft = Math.max(0, box.right - sight.left - sight.width * 0.7);
            }
        }

        addButtons() {
            const buttons = document.createElement('span');
            buttons.className = 'buttons';
            const add = (text, label, act) => {
                const button = document.createElement('button');
                button.type = 'button';
                button.textContent = text;
                button.setAttribute('aria-label', label);
                button.addEventListener('click', act);
                buttons.append(button, ' ');
            };
            add('−', 'Zoom out', () => this.zoomBy(1 / 1.5));
            add('+', 'Zoom in', () => this.zoomBy(1.5));
            add('all', 'Fit to the width', () => this.fit());
            this.figure.querySelector('figcaption').append(buttons);
        }

        listen() {
            const { scroll } = this;
            scroll.addEventListener('wheel', (event) => {
                // Without Ctrl a wheel scrolls the page, until the timeline has been clicked.
                if (event.shiftKey || !(event.ctrlKey || scroll.contains(document.activeElement))) {
                    return;
                }
                event.preventDefault();
                this.zoomBy(1.002 ** -event.deltaY, event.clientX);
            }, { passive: false });
            scroll.addEventListener('keydown', (event) => this.onKey(event));

            let drag = null;
            scroll.addEventListener('pointerdown', (event) => {
                if (event.button === 0 && event.pointerType === 'mouse') {
                    drag = { x: event.clientX, left: scroll.scrollLeft, moved: false };
                }
            });
            window.addEventListener('pointermove', (event) => {
                if (drag) {
                    drag.moved ||= Math.abs(event.clientX - drag.x) > 4;
                    scroll.scrollLeft = drag.left + drag.x - event.clientX;
                }
            });
            let wasDragged = false;
            window.addEventListener('pointerup', () => {
                wasDragged = drag?.moved ?? false;
                drag = null;
            });
            scroll.addEventListener('click', (event) => {
                if (!wasDragged) {
                    this.follow(event.target.closest('.f'));
                }
            });
            this.svg.addEventListener('pointerover', (event) => {
                const bar = event.target.closest('.b');
                const frame = event.target.closest('.f');
                if (bar) {
                    showTip(tell(bar), bar.getBoundingClientRect());
                } else if (frame) {
                    showTip(descOf(frame), event.target.getBoundingClientRect());
                } else {
                    hideTip();
                }
            });
            this.svg.addEventListener('pointerleave', hideTip);
        }

        // Keeps what is at `clientX`, or in the middle, where it is.
        zoomBy(factor, clientX) {
            const box = this.scroll.getBoundingClientRect();
            const at = clientX === undefined ? box.width / 2 : clientX - box.left;
            const share = (this.scroll.scrollLeft + at) / this.svg.getBoundingClientRect().width;
            const least = Math.min(1, box.width / this.width);
            this.zoom = Math.min(Math.max(this.zoom * factor, least), 100, 400000 / this.width);
            this.svg.style.width = `${this.width * this.zoom}px`;
            this.scroll.scrollLeft = share * this.svg.getBoundingClientRect().width - at;
            this.svg.classList.toggle('far', this.zoom < 0.6);
            hideTip();
        }

        fit() {
            this.zoomBy(0);
        }

        onKey(event) {
            const acts = {
                '+': () => this.zoomBy(1.5),
                '=': () => this.zoomBy(1.5),
                '-': () => this.zoomBy(1 / 1.5),
                '0': () => this.fit(),
                'ArrowRight': () => this.step(1, 0),
                'ArrowLeft': () => this.step(-1, 0),
                'ArrowDown': () => this.step(0, 1),
                'ArrowUp': () => this.step(0, -1),
                'Enter': () => this.follow(document.activeElement.closest('.f')),
                'Escape': () => this.follow(null),
            };
            if (acts[event.key] && !event.ctrlKey && !event.altKey && !event.metaKey) {
                event.preventDefault();
                acts[event.key]();
            }
        }

        // Moves the focus by that many frames or stages, over what has no bar.
        step(frames, stages) {
            const from = document.activeElement.closest('.b');
            const withBars = this.frames.filter((frame) => frame.querySelector('.b'));
            if (withBars.length === 0) {
                return;
            }
            if (!from || !this.svg.contains(from)) {
                const left = this.scroll.getBoundingClientRect().left;
                const isInSight = (frame) => frame.getBoundingClientRect().left >= left;
                const chosen = this.frames.find((frame) => frame.classList.contains('followed'));
                this.focus((chosen ?? withBars.find(isInSight) ?? withBars[0]).querySelector('.b'));
                return;
            }
            const bars = [...from.parentNode.querySelectorAll('.b')];
            if (stages !== 0) {
                this.focus(bars[bars.indexOf(from) + stages] ?? from);
                return;
            }
            const next = withBars[withBars.indexOf(from.parentNode) + frames] ?? from.parentNode;
            this.focus(next.querySelector(`.b[data-s="${from.dataset.s}"]`) ??
                       next.querySelector('.b'));
        }

        focus(bar) {
            if (!bar) {
                return;
            }
            bar.setAttribute('tabindex', '-1');
            bar.setAttribute('role', 'img');
            bar.setAttribute('aria-label', tell(bar));
            bar.focus({ preventScroll: true });
            this.bringIntoSight(bar);
            showTip(tell(bar), bar.getBoundingClientRect());
            bar.addEventListener('blur', hideTip, { once: true });
        }

        bringIntoSight(element) {
            const box = element.getBoundingClientRect();
            const sight = this.scroll.getBoundingClientRect();
            if (box.left < sight.left || box.right > sight.right) {
                this.scroll.scrollLeft += (box.left + box.right - sight.left - sight.right) / 2;
            }
            if (box.top < 0 || box.bottom > window.innerHeight) {
                this.figure.scrollIntoView({ block: 'center' });
            }
        }

        // Makes one frame stand out, from stage to stage; null: none.
        follow(frame) {
            this.svg.querySelectorAll('.path').forEach((line) => line.remove());
            this.frames.forEach((other) => other.classList.toggle('followed', other === frame));
            this.svg.classList.toggle('following', frame !== null);
            if (frame === null) {
                this.chosen.textContent = this.figure.matches('.timeline ~ .timeline') ? '' :
                    'Click on a bar, or press Enter, to follow a frame ' +
                    'through its stages. Ctrl and the wheel, or + and −, zoom; dragging, or the ' +
                    'arrow keys, move.';
                return;
            }
            timelines.filter((other) => other !== this).forEach((other) => other.follow(null));
            const bars = [...frame.querySelectorAll('.b')];
            this.chosen.textContent = [frame, ...bars].map(descOf).join('\n');
            bars.slice(1).forEach((bar, i) => {
                const before = [...bars[i].querySelectorAll('rect')].at(-1);
                const after = bar.querySelector('rect');
                const line = document.createElementNS(SVG, 'line');
                const number = (rect, name) => parseFloat(rect.getAttribute(name));
                line.setAttribute('class', 'path');
                line.setAttribute('x1', `${number(before, 'x') + number(before, 'width')}%`);
                line.setAttribute('y1', number(before, 'y') + number(before, 'height'));
                line.setAttribute('x2', `${number(after, 'x')}%`);
                line.setAttribute('y2', number(after, 'y'));
                frame.append(line);
            });
        }
    }

    const timelines = [...document.querySelectorAll('.timeline')].map((figure) =>
        new Timeline(figure));

    // Shows the frame that a link or a mark in the overview leads to, if it is drawn.
    const goTo = (id) => {
        const frame = document.getElementById(id);
        const timeline = timelines.find((one) => frame && one.svg.contains(frame));
        if (timeline) {
            timeline.scroll.focus({ preventScroll: true });
            timeline.figure.scrollIntoView({ block: 'center' });
            timeline.bringIntoSight(frame);
            timeline.follow(frame);
        }
        return Boolean(timeline);
    };
    document.addEventListener('click', (event) => {
        const link = event.target.closest('a[href^="#f"]');
        const mark = event.target.closest('.overview [data-f]');
        if (link && goTo(link.hash.slice(1))) {
            history.replaceState(null, '', link.hash);
            event.preventDefault();
        } else if (mark) {
            goTo(mark.dataset.f);
        }
    });
    goTo(location.hash.slice(1));

    // The table of frames: sorted by a click on a column's head, filtered by what is typed.
    const table = document.getElementById('list');
    const body = table.tBodies[0];
    const heads = [...table.tHead.rows[0].cells];
    heads.forEach((head, column) => {
        const button = document.createElement('button');
        button.type = 'button';
        button.textContent = head.textContent;
        head.replaceChildren(button);
        button.addEventListener('click', () => {
            const isDown = head.getAttribute('aria-sort') === 'ascending';
            heads.forEach((other) => other.removeAttribute('aria-sort'));
            head.setAttribute('aria-sort', isDown ? 'descending' : 'ascending');
            const text = (row) => row.cells[column].textContent;
            const compare = new Intl.Collator(undefined, { numeric: true }).compare;
            const number = (row) => (text(row) === '' ? NaN : Number(text(row)));
            const rows = [...body.rows].sort((a, b) => {
                const difference = number(a) - number(b);
                return Number.isNaN(difference) ? compare(text(a), text(b)) : difference;
            });
            body.append(...(isDown ? rows.reverse() : rows));
        });
    });
    if (body.rows.length > 1) {
        const label = document.createElement('label');
        const input = document.createElement('input');
        const shown = document.createElement('span');
        label.className = 'filter';
        label.append('Only rows with ', input, ' ', shown);
        shown.setAttribute('role', 'status');
        input.type = 'search';
        input.addEventListener('input', () => {
            const wanted = input.value.trim().toLowerCase();
            let count = 0;
            for (const row of body.rows) {
                row.hidden = !row.textContent.toLowerCase().includes(wanted);
                count += row.hidden ? 0 : 1;
            }
            shown.textContent = `${count} of ${body.rows.length}`;
        });
        table.parentNode.before(label);
    }
})();
