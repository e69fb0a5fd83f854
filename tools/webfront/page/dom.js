// Short names for finding and making elements.

export const find = (selector, root = document) => root.querySelector(selector);
export const findAll = (selector, root = document) => [...root.querySelectorAll(selector)];

export function make(name, properties = {}, ...children) {
    const element = Object.assign(document.createElement(name), properties);
    element.append(...children);
    return element;
}

// `label` is what a screen reader says.
export function button(text, action, label = text) {
    const made = make("button", {type: "button", onclick: action}, text);
    made.setAttribute("aria-label", label);
    return made;
}

// Does not touch an element that already has this text: a list is redrawn every few seconds.
export function setText(element, text) {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}
