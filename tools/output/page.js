'use strict';

(() => {
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
                // Cell by cell: "150" is not found in a row of 1 and 50.
                row.hidden = ![...row.cells].some((cell) =>
                    cell.textContent.toLowerCase().includes(wanted));
                count += row.hidden ? 0 : 1;
            }
            shown.textContent = `${count} of ${body.rows.length}`;
        });
        table.parentNode.before(label);
    }
})();
