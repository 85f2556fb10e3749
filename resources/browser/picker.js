// The element picker of the Stonewall browser. It runs in a script world of
// its own: the page can see neither this object nor the message handler, so
// it can neither drive the picker nor forge what the picker reports. It talks
// to the browser with the messages "VisualStatus" and "VisualData" and is
// told "VisualStatus", "BlockVisually", "VisualCancel" and "VisualDone".
(function () {
  "use strict";
  if (window.top !== window || window.__stonewallPicker) return;

  const handler = window.webkit && window.webkit.messageHandlers &&
                  window.webkit.messageHandlers.stonewall;
  const post = (name, userInfo) => { if (handler) handler.postMessage({ name, userInfo }); };

  let picking = false;
  let hovered = null;
  let chosen = [];
  const boxes = new Map();  // chosen element -> its marker
  let hoverBox = null;

  // Markers are positioned over elements instead of restyling them, so the
  // page's own styles, and so the selectors we report, stay untouched.
  function marker(color, fill) {
    const box = document.createElement("div");
    box.setAttribute("data-stonewall-picker", "");
    box.style.cssText = "position:absolute;pointer-events:none;z-index:2147483647;" +
      "box-sizing:border-box;border:2px solid " + color + ";background:" + fill + ";" +
      "border-radius:3px;margin:0;padding:0;display:none;";
    (document.body || document.documentElement).appendChild(box);
    return box;
  }

  function place(box, element) {
    const rect = element.getBoundingClientRect();
    box.style.left = (rect.left + window.scrollX) + "px";
    box.style.top = (rect.top + window.scrollY) + "px";
    box.style.width = rect.width + "px";
    box.style.height = rect.height + "px";
    box.style.display = "block";
  }

  function isOurs(element) {
    return element && element.hasAttribute && element.hasAttribute("data-stonewall-picker");
  }

  function pickable(element) {
    return element && element.nodeType === 1 && !isOurs(element) &&
           element !== document.documentElement && element !== document.body;
  }

  // A selector that names this element in the document: its id when that is
  // unique, else the path of tag:nth-of-type steps up to such an id or the
  // body.
  function selectorOf(element) {
    if (!element || element.nodeType !== 1) return "";
    const steps = [];
    for (let node = element; node && node.nodeType === 1; node = node.parentElement) {
      const tag = node.tagName.toLowerCase();
      if (node.id) {
        const byId = "#" + CSS.escape(node.id);
        if (document.querySelectorAll(byId).length === 1) { steps.unshift(byId); break; }
      }
      if (node === document.body || node === document.documentElement) { steps.unshift(tag); break; }
      let index = 1;
      for (let sibling = node.previousElementSibling; sibling; sibling = sibling.previousElementSibling) {
        if (sibling.tagName === node.tagName) index++;
      }
      steps.unshift(tag + ":nth-of-type(" + index + ")");
    }
    return steps.join(" > ");
  }

  function describe(element) {
    if (!element || element.nodeType !== 1) return ["", "", "", ""];
    const source = element.getAttribute("src") || element.getAttribute("data") || "";
    const current = typeof element.currentSrc === "string" ? element.currentSrc :
                    (element.src || "");
    return [element.tagName.toLowerCase(), selectorOf(element), String(source), String(current)];
  }

  function elementData(element) {
    return [String(location.href)].concat(describe(element), describe(element.parentElement));
  }

  function onMove(event) {
    const target = event.target;
    if (!pickable(target) || target === hovered) return;
    hovered = target;
    if (!hoverBox) hoverBox = marker("#0a84ff", "rgba(10,132,255,0.15)");
    place(hoverBox, target);
  }

  function swallow(event) {
    event.preventDefault();
    event.stopImmediatePropagation();
  }

  function onClick(event) {
    swallow(event);
    toggle(event.target);
  }

  function toggle(target) {
    if (!pickable(target)) return;
    const at = chosen.indexOf(target);
    if (at >= 0) {
      chosen.splice(at, 1);
      boxes.get(target).remove();
      boxes.delete(target);
      announce(spoken(target) + ", not picked");
      return;
    }
    chosen.push(target);
    const box = marker("#ff3b30", "rgba(255,59,48,0.25)");
    place(box, target);
    boxes.set(target, box);
    announce(spoken(target) + ", picked");
  }

  // From the keyboard: Tab, Shift+Tab and the arrow keys move the outline
  // through the page's visible elements, Space picks or unpicks the outlined
  // one, Return finishes as Done does and Escape cancels.
  function candidates() {
    return Array.from((document.body || document.documentElement).querySelectorAll("*"))
      .filter((element) => {
        if (!pickable(element)) return false;
        const rect = element.getBoundingClientRect();
        return rect.width > 0 && rect.height > 0 &&
               getComputedStyle(element).visibility !== "hidden";
      });
  }

  // What a screen reader says while picking: a polite live region, out of
  // sight, that names the mode, the outlined element and each choice.
  let announcer = null;
  function announce(text) {
    if (!announcer) {
      announcer = document.createElement("div");
      announcer.setAttribute("data-stonewall-picker", "");
      announcer.setAttribute("role", "status");
      announcer.setAttribute("aria-live", "polite");
      announcer.style.cssText = "position:absolute;width:1px;height:1px;overflow:hidden;" +
        "clip:rect(0 0 0 0);white-space:nowrap;margin:0;padding:0;border:0;";
      (document.body || document.documentElement).appendChild(announcer);
    }
    announcer.textContent = text;
  }

  function spoken(element) {
    const text = (element.getAttribute("aria-label") || element.getAttribute("alt") ||
                  element.textContent || "").trim().replace(/\s+/g, " ").slice(0, 80);
    return element.tagName.toLowerCase() + (text ? ": " + text : "");
  }

  function outline(element) {
    hovered = element;
    if (!hoverBox) hoverBox = marker("#0a84ff", "rgba(10,132,255,0.15)");
    place(hoverBox, element);
    element.scrollIntoView({ block: "nearest", inline: "nearest" });
    announce(spoken(element) + (chosen.includes(element) ? ", picked" : ""));
  }

  function finish() {
    const data = chosen.filter((element) => element.isConnected).map(elementData);
    stop();
    post("VisualData", { data });
  }

  function onKey(event) {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const key = event.key;
    const back = key === "ArrowUp" || key === "ArrowLeft" || (key === "Tab" && event.shiftKey);
    if (key === "Tab" || key.startsWith("Arrow")) {
      const list = candidates();
      if (list.length === 0) return;
      swallow(event);
      const at = list.indexOf(hovered);
      const next = at < 0 ? (back ? list.length - 1 : 0)
                          : (at + (back ? -1 : 1) + list.length) % list.length;
      outline(list[next]);
    } else if (key === " " || key === "Spacebar") {
      swallow(event);
      if (hovered) toggle(hovered);
    } else if (key === "Enter") {
      swallow(event);
      finish();
    } else if (key === "Escape") {
      swallow(event);
      stop();
    }
  }

  function start() {
    if (picking) return;
    picking = true;
    document.addEventListener("mouseover", onMove, true);
    document.addEventListener("mousemove", onMove, true);
    document.addEventListener("click", onClick, true);
    document.addEventListener("mousedown", swallow, true);
    document.addEventListener("mouseup", swallow, true);
    document.addEventListener("keydown", onKey, true);
    announce("Picking page elements: Tab moves, Space picks, Return finishes, Escape cancels");
  }

  function stop() {
    picking = false;
    document.removeEventListener("mouseover", onMove, true);
    document.removeEventListener("mousemove", onMove, true);
    document.removeEventListener("click", onClick, true);
    document.removeEventListener("mousedown", swallow, true);
    document.removeEventListener("mouseup", swallow, true);
    document.removeEventListener("keydown", onKey, true);
    for (const box of boxes.values()) box.remove();
    boxes.clear();
    if (hoverBox) { hoverBox.remove(); hoverBox = null; }
    if (announcer) { announcer.remove(); announcer = null; }
    hovered = null;
    chosen = [];
  }

  window.__stonewallPicker = {
    receive(name) {
      if (name === "VisualStatus") {
        post("VisualStatus", { status: picking ? 1 : 0 });
      } else if (name === "BlockVisually") {
        start();
      } else if (name === "VisualCancel") {
        stop();
      } else if (name === "VisualDone") {
        finish();
      }
    },
  };
})();
