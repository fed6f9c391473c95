// Writing a value to the charted point. The gateway reports a written value
// on its next upload, so success shows in the values table; this form only
// says whether the platform took the command. Writes need the platform's
// token when it listens beyond loopback: asked for once, kept for the tab.
import { gatewayPath, postJson, setToken, token } from "./api.js";

export class WriteForm {
  constructor(form, target) {
    this.form = form;
    this.target = target;  // () => [serial, code]
    this.value = form.querySelector("#write-value");
    this.token = form.querySelector("#write-token");
    this.result = form.querySelector("#write-result");
    form.addEventListener("submit", (e) => {
      e.preventDefault();
      this.send();
    });
  }

  reset() {
    this.result.textContent = "";
  }

  async send() {
    const [sn, code] = this.target();
    if (!this.token.hidden) setToken(this.token.value.trim());
    this.result.textContent = "sending…";
    const res = await postJson(gatewayPath(sn, "/write"), { code, value: this.value.value });
    if (res.status === 401) {
      this.token.hidden = false;
      this.token.focus();
      this.result.textContent = token() ? "the token was refused" : "this platform needs its token for writes";
      return;
    }
    if (!res.ok) {
      this.result.textContent = res.error;
      return;
    }
    this.result.textContent =
      "sent as command " + res.data.id + (res.data.online ? "" : "; the gateway is offline and may not get it");
  }
}
