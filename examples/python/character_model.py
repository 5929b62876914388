"""Trains a small transformer, character by character, on a page of text, and shows what it writes meanwhile."""

import argparse
import pathlib

import ornik
from ornik import nn, optim

CONTEXT, WIDTH = 64, 64


class Transformer(nn.Module):
    """From characters [N, n], n <= CONTEXT, to scores [N, n, alphabet] of the one behind each."""

    def __init__(self, alphabet: int) -> None:
        self.characters = nn.Embedding(alphabet, WIDTH)
        self.positions = nn.Embedding(CONTEXT, WIDTH)
        layer = nn.TransformerEncoderLayer(
            WIDTH, 4, 4 * WIDTH, dropout=0.0, activation="gelu", batch_first=True, norm_first=True
        )
        self.encoder = nn.TransformerEncoder(layer, 2, norm=nn.LayerNorm(WIDTH))
        self.scores = nn.Linear(WIDTH, alphabet)

    def forward(self, text: ornik.KTensor) -> ornik.KTensor:
        x = self.characters(text) + self.positions(ornik.arange(text.shape[1]))
        scores: ornik.KTensor = self.scores(self.encoder(x, is_causal=True))
        return scores


@ornik.no_grad()
def write(model: Transformer, alphabet: str, start: str, length: int) -> str:
    """Goes on from ``start``, drawing one character after the other by the model's own probabilities."""
    model.eval()
    text = [alphabet.index(c) for c in start]
    for _ in range(length):
        scores = model(ornik.tensor([text[-CONTEXT:]]))[0, -1]
        text += ornik.random.multinomial(nn.functional.softmax(scores, -1), 1).tolist()
    model.train()
    return "".join(alphabet[i] for i in text)


def main() -> None:
    default = pathlib.Path(__file__).parent.parent / "character_model" / "harbour.txt"
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.ArgumentDefaultsHelpFormatter)
    parser.add_argument("--text", type=pathlib.Path, default=default, help="what to learn")
    parser.add_argument("--steps", type=int, default=300, help="training steps")
    parser.add_argument("--batch", type=int, default=16, help="windows of the text per step")
    parser.add_argument("--lr", type=float, default=0.003, help="highest learning rate")
    parser.add_argument("--seed", type=int, default=1, help="of weights, windows and what is written")
    parser.add_argument("--length", type=int, default=400, help="characters to write at the end")
    options = parser.parse_args()
    content = options.text.read_text()
    alphabet = "".join(sorted(set(content)))
    text = ornik.tensor([alphabet.index(c) for c in content])
    ornik.random.seed(options.seed)
    model = Transformer(len(alphabet))
    print(f"{len(text)} characters, {len(alphabet)} different; {model.parameter_count()} weights")
    optimizer = optim.AdamW(model.parameters(), betas=(0.9, 0.99))
    schedule = optim.lr_scheduler.OneCycleLR(optimizer, options.lr, total_steps=options.steps, pct_start=0.1)
    losses: list[float] = []
    for step in range(1, options.steps + 1):
        places = ornik.random.randint(0, len(text) - CONTEXT, (options.batch, 1)) + ornik.arange(CONTEXT)
        optimizer.zero_grad()
        scores = model(text[places])
        loss = nn.functional.cross_entropy(scores.reshape(-1, len(alphabet)), text[places + 1].reshape(-1))
        loss.backward()
        optimizer.step()
        schedule.step()
        losses.append(float(loss))
        if step % 50 == 0 or step == options.steps:
            said = write(model, alphabet, content[0], 70).replace("\n", " ")
            print(f"step {step:4}   loss {sum(losses) / len(losses):.3f}   {said}", flush=True)
            losses.clear()
    print("\n" + write(model, alphabet, content[0], options.length))


if __name__ == "__main__":
    main()
