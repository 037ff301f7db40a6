// What a page shows, for a check of its numbers and of its looks. An expression: a
// function of nothing that returns an object.
(() => {
  const texts = (element) => [...element.children].map((cell) => cell.title || cell.textContent);
  const tableOf = (table) => ({
    heads: texts(table.tHead.rows[0]),
    rows: [...table.tBodies[0].rows].map((row) => ({
      cells: texts(row),
      bar: row.querySelector('.share span')?.style.width ?? null,
    })),
  });
  const number = (element, name) => Number(element.getAttribute(name));
  const plotOf = (svg) => ({
    id: svg.id,
    bars: [...svg.querySelectorAll('.bar')].map((bar) => ({
      x: number(bar, 'x'), y: number(bar, 'y'), width: number(bar, 'width'),
      height: number(bar, 'height'), label: bar.textContent,
    })),
    texts: [...svg.querySelectorAll('text')].map((text) => ({
      kind: text.getAttribute('class'), x: number(text, 'x'), y: number(text, 'y'),
      text: text.textContent,
    })),
    marks: [...svg.querySelectorAll('path')].map((path) => ({
      kind: path.getAttribute('class'),
      places: path.getAttribute('d').match(/[\d.]+/g).map(Number),
    })),
  });
  const stripOf = (track) => {
    const svg = track.querySelector('svg');
    return {
      name: track.querySelector('b').title || track.querySelector('b').textContent,
      facts: track.querySelector('span').textContent,
      width: svg.style.width,
      viewBox: svg.getAttribute('viewBox'),
      outline: svg.querySelector('path').getAttribute('d'),
    };
  };
  const cardOf = (card) => ({
    title: card.querySelector('h3').textContent,
    tables: [...card.querySelectorAll('table')].map(tableOf),
    plots: [...card.querySelectorAll('svg.plot')].map(plotOf),
    strips: [...card.querySelectorAll('.track')].map(stripOf),
    empty: card.querySelector('.empty')?.textContent ?? null,
    items: [...card.querySelectorAll('li')].map((item) => item.textContent),
    notes: [...card.querySelectorAll('.note')].map((note) => note.textContent),
  });

  // --- Looks ---------------------------------------------------------------------

  const faults = [];
  const nameOf = (element) => {
    const card = element.closest('.card, header, footer');
    const place = card?.querySelector('h3, h1')?.textContent.slice(0, 40) ?? '';
    return `${place}: ${element.tagName} ${element.textContent.slice(0, 40)}`;
  };
  const isShown = (element) => element.checkVisibility();

  // Nothing reaches beyond the window, or beyond its card, unless it can be scrolled.
  const root = document.scrollingElement;
  if (root.scrollWidth > root.clientWidth) faults.push(`the page is ${root.scrollWidth} wide`);
  for (const element of document.body.querySelectorAll('*')) {
    if (!isShown(element) || element.parentElement.closest('.scroll') || element.closest('svg')) continue;
    const holder = element.parentElement.closest('.card, .tiles div') ?? root;
    const box = element.getBoundingClientRect();
    const limits = holder.getBoundingClientRect();
    if (box.left < limits.left - 0.5 || box.right > limits.right + 0.5) {
      faults.push(`sticks out: ${nameOf(element)}`);
    }
    const canScroll = getComputedStyle(element).overflowX === 'auto';
    if (!canScroll && element.clientWidth > 0 && element.scrollWidth > element.clientWidth + 1) {
      faults.push(`too narrow: ${nameOf(element)}`);
    }
  }

  // Labels of a drawing stay inside it, can be read, and do not meet.
  const SMALLEST_TEXT = 9.5;
  for (const svg of document.querySelectorAll('svg.plot')) {
    if (!isShown(svg)) continue;
    const [left, top, width, height] = svg.getAttribute('viewBox').split(' ').map(Number);
    const labels = [...svg.querySelectorAll('text')];
    const boxes = labels.map((label) => label.getBBox());
    labels.forEach((label, i) => {
      const box = boxes[i];
      if (box.x < left - 0.1 || box.y < top - 0.1 || box.x + box.width > left + width + 0.1 ||
          box.y + box.height > top + height + 0.1) {
        faults.push(`label outside: ${nameOf(label)}`);
      }
      const size = parseFloat(getComputedStyle(label).fontSize) * label.getScreenCTM().a;
      if (size < SMALLEST_TEXT) faults.push(`label of ${size} px: ${nameOf(label)}`);
      for (let k = 0; k < i; ++k) {
        const other = boxes[k];
        if (box.x < other.x + other.width && other.x < box.x + box.width &&
            box.y < other.y + other.height && other.y < box.y + box.height) {
          faults.push(`labels meet: ${labels[k].textContent} and ${nameOf(label)}`);
        }
      }
    });
  }

  // Nothing is empty, and all drawings have words.
  const ids = [...document.querySelectorAll('[id]')].map((element) => element.id);
  if (new Set(ids).size !== ids.length) faults.push('an id is there twice');
  for (const svg of document.querySelectorAll('svg')) {
    const words = (svg.getAttribute('aria-labelledby') ?? '').split(' ')
        .map((id) => document.getElementById(id));
    const good = words.length === 2 && words[0]?.tagName === 'title' && words[1]?.tagName === 'desc' &&
        words.every((element) => svg.contains(element) && element.textContent.trim() !== '');
    if (!good) faults.push(`drawing without title and description: ${nameOf(svg)}`);
    const shapes = [...svg.querySelectorAll('.bar, .area')];
    if (!shapes.some((shape) => shape.getBBox().width > 0 && shape.getBBox().height > 0)) {
      faults.push(`empty drawing: ${nameOf(svg)}`);
    }
  }
  for (const table of document.querySelectorAll('table')) {
    if (table.tBodies[0].rows.length === 0) faults.push(`empty table: ${nameOf(table)}`);
  }
  for (const card of document.querySelectorAll('.card')) {
    if (!card.querySelector('svg, table, p, li')) faults.push(`empty card: ${nameOf(card)}`);
  }

  // Colours.
  const luminance = (colour) => {
    const [r, g, b] = colour.match(/[\d.]+/g).slice(0, 3).map((part) => {
      const share = part / 255;
      return share <= 0.04045 ? share / 12.92 : ((share + 0.055) / 1.055) ** 2.4;
    });
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
  };
  const behind = (element) => {
    for (let at = element; at; at = at.parentElement) {
      const colour = getComputedStyle(at).backgroundColor;
      if (!/, 0\)$/.test(colour)) return colour;
    }
    return 'rgb(255, 255, 255)';
  };
  const contrast = (a, b) => {
    const [low, high] = [luminance(a), luminance(b)].sort((x, y) => x - y);
    return (high + 0.05) / (low + 0.05);
  };
  for (const element of document.body.querySelectorAll('*')) {
    const hasText = [...element.childNodes].some((node) => node.nodeType === 3 && node.data.trim());
    if (!hasText || !isShown(element) || /^(title|desc)$/.test(element.tagName)) continue;
    const style = getComputedStyle(element);
    const colour = element.closest('svg') ? style.fill : style.color;
    const ratio = contrast(colour, behind(element.closest('svg')?.parentElement ?? element));
    if (ratio < 4.5) faults.push(`contrast ${ratio.toFixed(2)}: ${nameOf(element)}`);
  }
  for (const shape of document.querySelectorAll('.bar, .area, .share span')) {
    const isSvg = shape.closest('svg');
    const colour = isSvg ? getComputedStyle(shape).fill : getComputedStyle(shape).backgroundColor;
    const ground = behind(shape.classList.contains('area') ? isSvg : (isSvg ?? shape).parentElement);
    if (contrast(colour, ground) < 3) faults.push(`contrast of a bar: ${nameOf(shape)}`);
  }

  // It needs nothing else.
  for (const element of document.querySelectorAll('script, link, img, iframe, object, [src], [href]')) {
    faults.push(`needs something else: ${element.tagName}`);
  }

  return {
    title: document.title,
    heading: document.querySelector('h1').textContent,
    facts: document.querySelector('header p').textContent,
    tiles: Object.fromEntries([...document.querySelectorAll('.tiles div')].map(
        (tile) => [tile.querySelector('dt').textContent, tile.querySelector('dd').textContent])),
    cards: [...document.querySelectorAll('.card')].map(cardOf),
    sections: [...document.querySelectorAll('h2')].map((section) => section.textContent),
    ground: luminance(getComputedStyle(document.body).backgroundColor),
    faults,
  };
})()
