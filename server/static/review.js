// The session page's viewer: one step at a time, side by side or overlaid (wipe, onion skin,
// baseline/current toggle), zoom, difference boxes and keyboard review. Everything it needs is
// in the page's markup (data- attributes); it fetches nothing.
(function () {
  'use strict';
  const viewer = document.querySelector('.viewer');
  if (!viewer) {
    return;
  }
  document.documentElement.classList.add('js');
  const steps = [...document.querySelectorAll('.step')];
  const links = [...document.querySelectorAll('.steps-nav a[data-step]')];
  const slider = document.getElementById('slider');
  const view = { mode: 'side', zoom: 'fit', showCurrent: true, box: -1 };
  let active = 0;

  function boxesOf(step) {
    try {
      const boxes = JSON.parse(step.dataset.boxes || '[]');
      return Array.isArray(boxes) ? boxes : [];
    } catch (e) {
      return [];
    }
  }

  // Boxes are in image pixels; as percentages of the image they follow every zoom.
  function drawBoxes(frame, boxes) {
    const img = frame.querySelector('img');
    const place = () => {
      const w = img.naturalWidth, h = img.naturalHeight;
      if (!w || !h || frame.querySelector('.box')) {
        return;
      }
      boxes.forEach((b, i) => {
        const div = document.createElement('div');
        div.className = 'box';
        div.dataset.index = i;
        div.style.left = (100 * b[0] / w) + '%';
        div.style.top = (100 * b[1] / h) + '%';
        div.style.width = (100 * b[2] / w) + '%';
        div.style.height = (100 * b[3] / h) + '%';
        frame.appendChild(div);
      });
      applyZoom();
    };
    if (img.complete) {
      place();
    } else {
      img.addEventListener('load', place);
    }
  }

  function applyZoom() {
    const scale = { fit: 0, '100': 1, '200': 2 }[view.zoom];
    for (const stage of document.querySelectorAll('.stage')) {
      stage.classList.toggle('zoom-fit', scale === 0);
      stage.classList.toggle('zoom-fixed', scale !== 0);
      // Fit: the whole screen in the visible height (hidden steps measure 0 and wait).
      const room = stage.clientHeight - 40;
      for (const img of stage.querySelectorAll('.frame img:not(.top)')) {
        // CSS pixels: at a device ratio of 1, 100 % shows every image pixel.
        img.style.width = scale && img.naturalWidth ? img.naturalWidth * scale + 'px' : '';
        img.style.maxHeight = !scale && room > 100 ? room + 'px' : '';
      }
    }
    pressed('zoom', view.zoom);
  }

  function applyMode() {
    const overlay = view.mode !== 'side';
    for (const stage of document.querySelectorAll('.stage')) {
      stage.classList.toggle('mode-side', !overlay);
      stage.classList.toggle('mode-overlay', overlay);
      const top = stage.querySelector('.overlay img.top');
      const caption = stage.querySelector('.overlay figcaption');
      if (!top) {
        continue;
      }
      const value = slider ? Number(slider.value) : 50;
      top.style.clipPath = view.mode === 'wipe' ? `inset(0 0 0 ${value}%)` : '';
      top.style.opacity = view.mode === 'onion' ? String(value / 100)
        : view.mode === 'toggle' && !view.showCurrent ? '0' : '1';
      caption.textContent = view.mode === 'toggle'
        ? (view.showCurrent ? 'Current' : 'Baseline') + ' (t toggles)'
        : view.mode === 'wipe' ? 'Baseline | Current' : 'Current over baseline';
    }
    if (slider) {
      slider.hidden = view.mode !== 'wipe' && view.mode !== 'onion';
    }
    pressed('mode', view.mode);
  }

  function pressed(name, value) {
    for (const b of document.querySelectorAll(`button[data-${name}]`)) {
      b.setAttribute('aria-pressed', String(b.dataset[name] === value));
    }
  }

  function selectBox(index) {
    const step = steps[active];
    const count = boxesOf(step).length;
    if (!count) {
      return;
    }
    view.box = (index + count) % count;
    if (view.zoom === 'fit') {
      view.zoom = '100';
      applyZoom();
    }
    for (const el of step.querySelectorAll('.box, .diffs button')) {
      el.classList.toggle('selected', Number(el.dataset.index) === view.box);
    }
    const target = [...step.querySelectorAll(`.box[data-index="${view.box}"]`)]
      .find((el) => el.offsetParent !== null);
    if (target) {
      target.scrollIntoView({ block: 'center', inline: 'center' });
    }
  }

  function showStep(index) {
    if (!steps.length) {
      return;
    }
    active = Math.max(0, Math.min(steps.length - 1, index));
    steps.forEach((s, i) => s.classList.toggle('on', i === active));
    links.forEach((a, i) => a.classList.toggle('on', i === active));
    view.box = -1;
    for (const input of document.querySelectorAll('input[name=step]')) {
      input.value = String(active + 1);
    }
    applyZoom();
    const hash = '#' + steps[active].id;
    if (location.hash !== hash) {
      history.replaceState(null, '', hash);
    }
  }

  function fromHash() {
    const i = steps.findIndex((s) => '#' + s.id === location.hash);
    if (i >= 0) {
      return i;
    }
    // Open where the review starts: the first step that did not match.
    const first = steps.findIndex((s) => s.dataset.outcome !== 'matched');
    return first >= 0 ? first : 0;
  }

  function submit(form) {
    if (form) {
      form.requestSubmit();
    }
  }

  for (const step of steps) {
    const boxes = boxesOf(step);
    for (const frame of step.querySelectorAll('.frame')) {
      drawBoxes(frame, boxes);
    }
  }
  document.addEventListener('click', (e) => {
    const b = e.target.closest('button[data-mode], button[data-zoom], button[data-diff], ' +
      '.diffs button[data-index]');
    if (!b) {
      return;
    }
    if (b.dataset.mode) {
      view.mode = b.dataset.mode;
      applyMode();
    } else if (b.dataset.zoom) {
      view.zoom = b.dataset.zoom;
      applyZoom();
    } else if (b.dataset.diff) {
      selectBox(view.box + Number(b.dataset.diff));
    } else {
      selectBox(Number(b.dataset.index));
    }
  });
  if (slider) {
    slider.addEventListener('input', applyMode);
  }
  links.forEach((a, i) => a.addEventListener('click', (e) => {
    e.preventDefault();
    showStep(i);
  }));
  window.addEventListener('hashchange', () => showStep(fromHash()));
  window.addEventListener('resize', applyZoom);
  document.addEventListener('keydown', (e) => {
    if (e.ctrlKey || e.metaKey || e.altKey || e.target.closest('input, select, textarea')) {
      return;
    }
    const keys = {
      j: () => showStep(active + 1),
      k: () => showStep(active - 1),
      a: () => submit(document.getElementById('approve')),
      r: () => submit(steps[active] && steps[active].querySelector('form.reject-step')),
      t: () => {
        view.showCurrent = view.mode === 'toggle' ? !view.showCurrent : false;
        view.mode = 'toggle';
        applyMode();
      },
      n: () => selectBox(view.box + 1),
      p: () => selectBox(view.box - 1),
      1: () => { view.zoom = 'fit'; applyZoom(); },
      2: () => { view.zoom = '100'; applyZoom(); },
      3: () => { view.zoom = '200'; applyZoom(); },
    };
    const action = keys[e.key];
    if (action) {
      e.preventDefault();
      action();
    }
  });
  showStep(fromHash());
  applyMode();
  applyZoom();
})();
