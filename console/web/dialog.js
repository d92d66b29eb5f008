// Asks and shows in a dialog: focus stays in it, Escape closes it.
import {element} from "./dom.js";

/**
 * fill(body, close) puts content there; act, when given: {text, risky, run(): Promise<sentence>}.
 * The dialog stays open while run is under way and shows how it ended.
 */
export function open(title, fill, act = null) {
  const body = element("div", {});
  const end = element("p", {role: "status"});
  const dialog = element("dialog", {"aria-labelledby": "dialog-title"}, element("h2", {id: "dialog-title"}, title), body, end);
  const close = element("button", {onclick: () => dialog.close()}, act ? "Cancel" : "Close");
  const go = act === null ? null : element("button", {class: act.risky ? "risky" : "main", onclick: async () => {
    go.disabled = true;
    end.className = "";
    end.textContent = "Working…";
    try {
      end.textContent = await act.run((progress) => { end.textContent = progress; });
      go.remove();
      close.textContent = "Close";
      close.focus();
    } catch (problem) {
      end.className = "error";
      end.textContent = problem.message;
      go.disabled = false;
    }
  }}, act.text);
  dialog.append(element("div", {class: "acts"}, go, close));
  dialog.addEventListener("close", () => dialog.remove());
  fill(body);
  document.body.append(dialog);
  dialog.showModal();
  return dialog;
}
