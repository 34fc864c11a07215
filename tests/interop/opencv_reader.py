"""What OpenCV makes of a stream: opencv_reader.py URL PICTURES prints how many pictures it read, and their shape."""
import sys

import cv2

url, wanted = sys.argv[1], int(sys.argv[2])
capture = cv2.VideoCapture(url, cv2.CAP_FFMPEG)
count, shape = 0, None
while count < wanted:
    is_read, picture = capture.read()
    if not is_read:
        break
    count, shape = count + 1, picture.shape
print(count, shape)
