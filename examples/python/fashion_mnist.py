"""Trains a convolutional network on the Fashion-MNIST images; draws how it learns and what it takes for what."""

import argparse
import pathlib

import matplotlib.pyplot as plt
from tqdm import tqdm

import ornik
from ornik import data, nn, optim

CLASSES = ["T-shirt", "Trouser", "Pullover", "Dress", "Coat", "Sandal", "Shirt", "Sneaker", "Bag", "Boot"]


def read(folder: pathlib.Path, part: str) -> data.TensorDataset:
    images = data.read_idx(folder / f"{part}-images-idx3-ubyte.gz").astype(ornik.float32)
    labels = data.read_idx(folder / f"{part}-labels-idx1-ubyte.gz").astype(ornik.int64)
    return data.TensorDataset((images[:, None] / 255 - 0.2860) / 0.3530, labels)  # The pixels' mean and deviation.


@ornik.no_grad()
def confusion(network: nn.Module, images: data.TensorDataset) -> ornik.KTensor:
    """How often each class, a row, was taken for each, a column."""
    counts = ornik.zeros((10, 10), dtype=ornik.int64)
    network.eval()
    for x, truth in data.DataLoader(images, batch_size=1000):
        counts += nn.functional.one_hot(truth, 10).T @ nn.functional.one_hot(ornik.argmax(network(x), axis=1), 10)
    network.train()
    return counts


def draw(losses: list[float], accuracies: list[float], counts: ornik.KTensor, folder: pathlib.Path) -> None:
    figure, left = plt.subplots(figsize=(7, 4), layout="constrained", subplot_kw={"xlabel": "epoch"})
    left.plot([i * len(accuracies) / len(losses) for i in range(len(losses))], losses, color="tab:blue", lw=0.6)
    left.set_ylabel("training loss", color="tab:blue")
    right = left.twinx()
    right.plot(range(1, len(accuracies) + 1), accuracies, "o-", color="tab:orange")
    right.set_ylabel("accuracy on the test images, %", color="tab:orange")
    figure.savefig(folder / "learning_curve.png", dpi=120)
    figure, axes = plt.subplots(figsize=(7, 6.5), layout="constrained")
    axes.imshow(counts.numpy() ** 0.5, cmap="Blues")
    for (row, column), count in zip(ornik.argwhere(counts >= 0).tolist(), counts.reshape(-1).tolist()):
        axes.text(column, row, count, ha="center", va="center", color="w" if count > 400 else "k", size=8)
    axes.set(xlabel="taken for", ylabel="is", yticks=range(10), yticklabels=CLASSES)
    axes.set_xticks(range(10), CLASSES, rotation=45)
    figure.savefig(folder / "confusion_matrix.png", dpi=120)


parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.ArgumentDefaultsHelpFormatter)
parser.add_argument("--epochs", type=int, default=5, help="passes over the training images")
parser.add_argument("--seed", type=int, default=1, help="of the first weights and of the images' order")
parser.add_argument("--data", type=pathlib.Path, default="/usr/share/datasets/fashion-mnist", help="the four files")
parser.add_argument("--output", type=pathlib.Path, default=".", help="folder for the pictures")
options = parser.parse_args()
ornik.random.seed(options.seed)
training, test = read(options.data, "train"), read(options.data, "t10k")
network = nn.Sequential(
    *(nn.Conv2d(1, 16, 3, padding=1, bias=False), nn.BatchNorm2d(16), nn.ReLU(), nn.MaxPool2d(2)),
    *(nn.Conv2d(16, 32, 3, padding=1, bias=False), nn.BatchNorm2d(32), nn.ReLU(), nn.MaxPool2d(2)),
    *(nn.Flatten(), nn.Linear(32 * 7 * 7, 128), nn.ReLU(), nn.Linear(128, 10)),
)
losses, accuracies = [], []
batches = data.DataLoader(training, 128, shuffle=True, num_workers=1)
optimizer = optim.SGD(network.parameters(), lr=0.05, momentum=0.9, nesterov=True)
schedule = optim.lr_scheduler.CosineAnnealingLR(optimizer, len(batches) * options.epochs)
for epoch in range(options.epochs):
    for x, truth in (progress := tqdm(batches, f"epoch {epoch + 1}/{options.epochs}", unit=" batches")):
        optimizer.zero_grad()
        loss = nn.functional.cross_entropy(network(x), truth)
        loss.backward()
        optimizer.step()
        schedule.step()
        losses.append(float(loss))
        progress.set_postfix(loss=f"{sum(losses[-100:]) / len(losses[-100:]):.3f}", refresh=False)
    counts = confusion(network, test)
    accuracies.append(100 * float(ornik.diagonal(counts).sum() / counts.sum()))
    print(f"accuracy on {len(test)} test images: {accuracies[-1]:.2f} %")
options.output.mkdir(parents=True, exist_ok=True)
draw(losses, accuracies, counts, options.output)
print(f"pictures: {options.output / 'learning_curve.png'}, {options.output / 'confusion_matrix.png'}")
